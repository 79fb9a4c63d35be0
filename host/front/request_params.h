// Turns what a client sent (query string and body) into the parameter
// object a handler sees, plus the few values the server itself reads.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace farlink::host {

using FormPairs = std::vector<std::pair<std::string, std::string>>;

// application/x-www-form-urlencoded (also query strings): '+' is a space,
// %XX a byte. Nullopt for a broken escape.
std::optional<FormPairs> DecodeForm(std::string_view text);

// A complete JSON value and nothing else, or nullopt.
std::optional<Json::Value> ParseStrictJson(std::string_view text);

// A textual parameter that is valid JSON is passed as that value.
Json::Value CoerceParamText(const std::string& text);

struct RequestParams {
    Json::Value params{Json::objectValue};   // what the handler sees
    std::map<std::string, std::string> own;  // values the server reads, as text
};

struct ParamsOutcome {
    std::optional<RequestParams> params;  // nullopt: `problem` says why
    std::string problem;
};

// Query parameters first, then the body's, later ones winning. Names in
// `ownNames` are kept apart, uncoerced, and not passed to the handler; in a
// JSON body they must be strings or integers.
ParamsOutcome CollectParams(std::string_view query, std::string_view contentType,
                            std::string_view body, const std::set<std::string>& ownNames);

}  // namespace farlink::host
