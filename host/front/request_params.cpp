#include "request_params.h"

#include <json/reader.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "secrets.h"

namespace farlink::host {

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::optional<std::string> DecodeComponent(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            decoded += ' ';
        } else if (text[i] != '%') {
            decoded += text[i];
        } else {
            if (i + 2 >= text.size()) return std::nullopt;
            int high = HexDigit(text[i + 1]);
            int low = HexDigit(text[i + 2]);
            if (high < 0 || low < 0) return std::nullopt;
            decoded += static_cast<char>(high * 16 + low);
            i += 2;
        }
    }
    return decoded;
}

std::unique_ptr<Json::CharReader> MakeStrictReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["strictRoot"] = false;  // scalars are complete values too
    builder.settings_["stackLimit"] = 256;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

std::string MediaType(std::string_view contentType) {
    std::string type(contentType.substr(0, contentType.find(';')));
    type.erase(
        std::remove_if(type.begin(), type.end(), [](unsigned char c) { return std::isspace(c); }),
        type.end());
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return type;
}

class ParamsBuilder {
public:
    explicit ParamsBuilder(const std::set<std::string>& ownNames) : ownNames_(ownNames) {}

    void AddText(const std::string& name, const std::string& text) {
        if (ownNames_.count(name) != 0) {
            result_.own[name] = text;
        } else {
            result_.params[name] = CoerceParamText(text);
        }
    }

    bool AddJson(const std::string& name, const Json::Value& value) {
        if (ownNames_.count(name) == 0) {
            result_.params[name] = value;
        } else if (value.isString()) {
            result_.own[name] = value.asString();
        } else if (value.isIntegral()) {
            result_.own[name] = value.isUInt64() ? std::to_string(value.asUInt64())
                                                 : std::to_string(value.asInt64());
        } else {
            return false;
        }
        return true;
    }

    RequestParams Take() { return std::move(result_); }

private:
    const std::set<std::string>& ownNames_;
    RequestParams result_;
};

ParamsOutcome Problem(std::string problem) { return {std::nullopt, std::move(problem)}; }

// The decoded values are copied on, and wiped here: one may be a password.
bool AddForm(std::string_view text, ParamsBuilder& builder) {
    std::optional<FormPairs> pairs = DecodeForm(text);
    if (!pairs) return false;
    for (auto& [name, value] : *pairs) {
        builder.AddText(name, value);
        Wipe(value);
    }
    return true;
}

}  // namespace

std::optional<FormPairs> DecodeForm(std::string_view text) {
    FormPairs pairs;
    // Room for every field at once: a vector that grows leaves the short
    // values it held (a password among them) in the storage it gives back.
    pairs.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '&')) + 1);
    while (!text.empty()) {
        std::size_t end = std::min(text.find('&'), text.size());
        std::string_view field = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (field.empty()) continue;
        std::size_t equals = std::min(field.find('='), field.size());
        auto name = DecodeComponent(field.substr(0, equals));
        auto value = DecodeComponent(field.substr(std::min(equals + 1, field.size())));
        if (!name || !value) return std::nullopt;
        pairs.emplace_back(std::move(*name), std::move(*value));
    }
    return pairs;
}

std::optional<Json::Value> ParseStrictJson(std::string_view text) {
    thread_local std::unique_ptr<Json::CharReader> reader = MakeStrictReader();
    Json::Value value;
    std::string errors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {
        return std::nullopt;  // nested deeper than the reader's stack limit
    }
    return value;
}

Json::Value CoerceParamText(const std::string& text) {
    std::optional<Json::Value> json = ParseStrictJson(text);
    return json ? *json : Json::Value(text);
}

ParamsOutcome CollectParams(std::string_view query, std::string_view contentType,
                            std::string_view body, const std::set<std::string>& ownNames) {
    ParamsBuilder builder(ownNames);
    if (!AddForm(query, builder)) return Problem("bad escape in the query string");
    if (body.empty()) return {builder.Take(), {}};

    const std::string type = MediaType(contentType);
    if (type.empty() || type == "application/x-www-form-urlencoded") {
        if (!AddForm(body, builder)) return Problem("bad escape in the form body");
        return {builder.Take(), {}};
    }
    if (type != "application/json") return Problem("unsupported content type '" + type + "'");

    std::optional<Json::Value> document = ParseStrictJson(body);
    if (!document || !document->isObject()) return Problem("the JSON body is not an object");
    for (const std::string& name : document->getMemberNames()) {
        if (!builder.AddJson(name, (*document)[name])) {
            return Problem("'" + name + "' in the JSON body must be a string");
        }
    }
    WipeSecrets(*document);
    return {builder.Take(), {}};
}

}  // namespace farlink::host
