// The two web API endpoints, free of HTTP: login, and the decision what a
// request is (Login, Route); a worker then runs the handler it names.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <variant>

#include "api_table.h"
#include "call.h"
#include "host_errors.h"
#include "login_throttle.h"
#include "request_params.h"
#include "secrets.h"
#include "sessions.h"

namespace farlink::host {

// What a request shows of its session besides its parameters.
struct Credentials {
    std::string cookieSession;  // the session cookie's value
    std::string token;          // the anti-forgery header's value
};

class ApiService {
public:
    // Parameters each endpoint reads itself rather than passing on.
    static const std::set<std::string> kAuthNames;
    static const std::set<std::string> kCallNames;
    static constexpr char kAdminAccount[] = "admin";
    static constexpr char kLogoutMethod[] = "logout";

    ApiService(const ApiTable& table, SessionStore& sessions, LoginThrottle& throttle,
               const PasswordHash& adminPassword)
        : table_(table), sessions_(sessions), throttle_(throttle), adminPassword_(adminPassword) {}

    // `address` is the client's, for counting its failures.
    ApiReply Login(const RequestParams& request, const std::string& address);
    ApiReply Logout(const RequestParams& request, const Credentials& credentials);
    // The host's own answer, or the call a worker must run.
    std::variant<ApiReply, HandlerCall> Route(const RequestParams& request,
                                              const Credentials& credentials);

    // The id of the session the request acts in, or the refusal.
    std::variant<ApiReply, std::string> Authenticate(const RequestParams& request,
                                                     const Credentials& credentials);

private:
    const ApiTable& table_;
    SessionStore& sessions_;
    LoginThrottle& throttle_;
    const PasswordHash adminPassword_;
};

}  // namespace farlink::host
