// Maps HTTP requests onto the web API endpoints: paths, methods and size
// limits, the JSON reply, the ids check and the access log line.
#pragma once

#include "access_log.h"
#include "api_service.h"
#include "http_exchange.h"
#include "privileges.h"

namespace farlink::host {

constexpr char kAuthPath[] = "/webapi/auth.cgi";
constexpr char kEntryPath[] = "/webapi/entry.cgi";
constexpr char kSessionCookie[] = "id";

// The value of cookie `name` in a Cookie header, or "".
std::string CookieValue(const std::string& header, const std::string& name);

class Router {
public:
    Router(ApiService& service, IdsWarden& warden, const AccessLog& log)
        : service_(service), warden_(warden), log_(log) {}

    HttpReply Handle(const HttpExchange& exchange);

private:
    struct Answer {
        int status = 200;
        ApiReply api;
    };

    Answer Route(const HttpExchange& exchange);
    Answer RouteSafely(const HttpExchange& exchange);

    ApiService& service_;
    IdsWarden& warden_;
    const AccessLog& log_;
};

}  // namespace farlink::host
