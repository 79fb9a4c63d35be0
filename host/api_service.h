// The two web API endpoints, free of HTTP: login, and the call of a module
// handler with the envelope built from its answer. The front decides what a
// request is (Login, Route); a worker runs the handler (RunHandler).
#pragma once

#include <json/value.h>

#include <cstdint>
#include <set>
#include <string>
#include <variant>

#include "api_table.h"
#include "host_errors.h"
#include "request_params.h"
#include "sessions.h"

namespace farlink::host {

struct ApiReply {
    Json::Value envelope;
    std::string body;        // the envelope as sent, when a worker made it
    std::string call = "-";  // "api/version/method", for the access log
    std::string result;      // "ok" or "error=N"
    int answers = 0;         // how often the handler answered
    std::string newSession;  // set by a successful login
};

// The envelope as the HTTP body carries it: compact JSON.
std::string EnvelopeText(const Json::Value& envelope);

// A request that has passed every check the front makes: what a worker runs.
struct HandlerCall {
    std::string api;
    std::uint32_t version = 0;
    std::string method;
    Json::Value params{Json::objectValue};

    std::string Label() const;  // "api/version/method"
};

// Runs `handler` on `call` and builds the envelope from its answer.
ApiReply RunHandler(ORVO::APIHandler handler, const HandlerCall& call);

class ApiService {
public:
    // Parameters each endpoint reads itself rather than passing on.
    static const std::set<std::string> kLoginNames;
    static const std::set<std::string> kCallNames;
    static constexpr char kAdminAccount[] = "admin";

    ApiService(const ApiTable& table, SessionStore& sessions, std::string adminPassword)
        : table_(table), sessions_(sessions), adminPassword_(std::move(adminPassword)) {}

    ApiReply Login(const RequestParams& request);
    // The host's own answer, or the call a worker must run.
    std::variant<ApiReply, HandlerCall> Route(const RequestParams& request,
                                              const std::string& cookieSession) const;

    static ApiReply Failure(HostError error);

private:
    bool PasswordMatches(const std::string& given) const;

    const ApiTable& table_;
    SessionStore& sessions_;
    const std::string adminPassword_;
};

}  // namespace farlink::host
