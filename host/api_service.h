// The two web API endpoints, free of HTTP: login, and the call of a module
// handler with the envelope built from its answer. The front decides what a
// request is (Login, Route); a worker runs the handler (RunHandler).
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <variant>

#include "api_table.h"
#include "host_errors.h"
#include "login_throttle.h"
#include "request_params.h"
#include "sessions.h"

namespace farlink::host {

struct ApiReply {
    Json::Value envelope;
    std::string body;                    // the envelope as sent, when a worker made it
    std::string call = "-";              // "api/version/method", for the access log
    std::string result;                  // "ok" or "error=N"
    int answers = 0;                     // how often the handler answered
    int error = 0;                       // the host's own error code, when it refused
    std::string newSession;              // set by a successful login
    bool endedSession = false;           // by a logout
    std::chrono::seconds retryAfter{0};  // for a throttled login
};

// What a request shows of its session besides its parameters.
struct Credentials {
    std::string cookieSession;  // the session cookie's value
    std::string token;          // the anti-forgery header's value
};

// The envelope as the HTTP body carries it: compact JSON.
std::string EnvelopeText(const Json::Value& envelope);

// A request that has passed every check the front makes: what a worker runs.
struct HandlerCall {
    std::string api;
    std::uint32_t version = 0;
    std::string method;
    Json::Value params{Json::objectValue};
    std::string session;  // the front's, for the audit log; never sent to a worker

    std::string Label() const;  // "api/version/method"
};

// Runs `handler` on `call` and builds the envelope from its answer.
ApiReply RunHandler(ORVO::APIHandler handler, const HandlerCall& call);

class ApiService {
public:
    // Parameters each endpoint reads itself rather than passing on.
    static const std::set<std::string> kAuthNames;
    static const std::set<std::string> kCallNames;
    static constexpr char kAdminAccount[] = "admin";
    static constexpr char kLogoutMethod[] = "logout";

    ApiService(const ApiTable& table, SessionStore& sessions, LoginThrottle& throttle,
               std::string adminPassword)
        : table_(table),
          sessions_(sessions),
          throttle_(throttle),
          adminPassword_(std::move(adminPassword)) {}

    // `address` is the client's, for counting its failures.
    ApiReply Login(const RequestParams& request, const std::string& address);
    ApiReply Logout(const RequestParams& request, const Credentials& credentials);
    // The host's own answer, or the call a worker must run.
    std::variant<ApiReply, HandlerCall> Route(const RequestParams& request,
                                              const Credentials& credentials);

    static ApiReply Failure(HostError error);

    // The id of the session the request acts in, or the refusal.
    std::variant<ApiReply, std::string> Authenticate(const RequestParams& request,
                                                     const Credentials& credentials);

private:
    const ApiTable& table_;
    SessionStore& sessions_;
    LoginThrottle& throttle_;
    const std::string adminPassword_;
};

}  // namespace farlink::host
