// Maps HTTP requests onto the web API endpoints: paths, methods and size
// limits, the JSON reply and the access log line. Handlers run elsewhere:
// Decide says which call a worker must make.
#pragma once

#include <chrono>
#include <variant>

#include "access_log.h"
#include "api_service.h"
#include "http_exchange.h"

namespace farlink::host {

constexpr char kAuthPath[] = "/webapi/auth.cgi";
constexpr char kEntryPath[] = "/webapi/entry.cgi";
constexpr char kSessionCookie[] = "id";

// The value of cookie `name` in a Cookie header, or "".
std::string CookieValue(const std::string& header, const std::string& name);

class Router {
public:
    struct Answer {
        int status = 200;
        ApiReply api;
    };

    // `secure`: the host speaks TLS, so the session cookie is sent over it only.
    Router(ApiService& service, const AccessLog& log, bool secure)
        : service_(service), log_(log), secure_(secure) {}

    // The host's own answer, or the call that a worker must run.
    std::variant<Answer, HandlerCall> Decide(const HttpExchange& exchange);

    // The HTTP reply for `answer`, and its access-log line. `ids` is what
    // the worker's check found ("ids-ok" when no handler ran).
    HttpReply Finish(const HttpExchange& exchange, const Answer& answer, const std::string& ids,
                     std::chrono::steady_clock::time_point started) const;

private:
    std::variant<Answer, HandlerCall> Route(const HttpExchange& exchange);
    Answer Auth(const HttpExchange& exchange, const RequestParams& params);
    std::string SessionCookie(const std::string& value, const std::string& extra) const;

    ApiService& service_;
    const AccessLog& log_;
    const bool secure_;
};

}  // namespace farlink::host
