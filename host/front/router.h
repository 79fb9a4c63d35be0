// Maps HTTP requests onto the web API endpoints: paths, methods and size
// limits, the JSON reply and the access log line. Handlers run elsewhere:
// Decide says which call a worker must make.
#pragma once

#include <chrono>
#include <variant>

#include "access_log.h"
#include "api_service.h"
#include "audit_log.h"
#include "host_names.h"
#include "http_exchange.h"
#include "metrics.h"

namespace farlink::host {

constexpr char kAuthPath[] = "/webapi/auth.cgi";
constexpr char kEntryPath[] = "/webapi/entry.cgi";
constexpr char kSessionCookie[] = "id";
constexpr char kHealthPath[] = "/health";
constexpr char kMetricsPath[] = "/metrics";
constexpr char kAuditPath[] = "/webapi/audit.cgi";

// What the router asks of the process it answers for.
class HostState {
public:
    virtual ~HostState() = default;
    // Some worker is alive and the queue has room.
    virtual bool CanServe() const = 0;
    virtual std::size_t QueueDepth() const = 0;
};

// What the router keeps records in and checks against, owned by the front.
struct RouterRecords {
    HostMetrics& metrics;
    AuditLog& audit;
    const HostNames& names;
    const HostState& state;
};

// The value of cookie `name` in a Cookie header, or "".
std::string CookieValue(const std::string& header, const std::string& name);

class Router {
public:
    struct Answer {
        int status = 200;
        ApiReply api;
        std::string contentType = kJsonContentType;  // of api.body when it is not JSON
    };

    // `secure`: the host speaks TLS, so the session cookie is sent over it only.
    Router(ApiService& service, const AccessLog& log, bool secure, RouterRecords records)
        : service_(service), log_(log), secure_(secure), records_(records) {}

    // The host's own answer, or the call that a worker must run.
    std::variant<Answer, HandlerCall> Decide(const HttpExchange& exchange);

    // The HTTP reply for `answer`, and its access-log line. `ids` is what
    // the worker's check found ("ids-ok" when no handler ran).
    HttpReply Finish(const HttpExchange& exchange, const Answer& answer, const std::string& ids,
                     std::chrono::steady_clock::time_point started) const;

private:
    std::variant<Answer, HandlerCall> Route(const HttpExchange& exchange);
    Answer Auth(const HttpExchange& exchange, const RequestParams& params);
    Answer Health() const;
    // The metrics and the recent audit records, for a signed-in client.
    Answer Records(const HttpExchange& exchange, const RequestParams& params);
    bool IsCrossSite(const HttpExchange& exchange, const RequestParams& params, bool isAuth) const;
    std::string SessionCookie(const std::string& value, const std::string& extra) const;

    ApiService& service_;
    const AccessLog& log_;
    const bool secure_;
    RouterRecords records_;
};

}  // namespace farlink::host
