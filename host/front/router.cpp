#include "router.h"

#include <json/writer.h>

#include <cstdio>
#include <exception>

#include "secrets.h"

namespace farlink::host {

namespace {

constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kPayloadTooLarge = 413;
constexpr int kTooManyRequests = 429;
constexpr int kMisdirected = 421;
constexpr int kServiceUnavailable = 503;

// The HTTP status of the host's own refusals; the others are 200.
int StatusOf(const ApiReply& reply) {
    switch (static_cast<HostError>(reply.error)) {
        case HostError::kNoSuchEndpoint:
            return kNotFound;
        case HostError::kMethodNotAllowed:
        case HostError::kLoginNotPost:
            return kMethodNotAllowed;
        case HostError::kRequestTooLarge:
            return kPayloadTooLarge;
        case HostError::kBadToken:
        case HostError::kCrossSite:
            return kForbidden;
        case HostError::kForeignHost:
            return kMisdirected;
        case HostError::kTooManyLogins:
            return kTooManyRequests;
        default:
            return 200;
    }
}

Router::Answer Refusal(HostError error) {
    ApiReply reply = HostRefusal(error);
    return {StatusOf(reply), std::move(reply)};
}

Credentials CredentialsOf(const HttpExchange& exchange) {
    return {CookieValue(exchange.cookie, kSessionCookie), exchange.token};
}

// The host part of an Origin header ("https://nas.local:5001" ->
// "nas.local:5001"); "" for "null" and anything else without a scheme.
std::string OriginHost(const std::string& origin) {
    const std::size_t scheme = origin.find("://");
    if (scheme == std::string::npos) return "";
    const std::string rest = origin.substr(scheme + 3);
    return rest.substr(0, rest.find('/'));
}

const char* LoginOutcome(const ApiReply& reply) {
    if (reply.error == CodeOf(HostError::kTooManyLogins)) return "throttled";
    return reply.newSession.empty() ? "failure" : "success";
}

std::string Trim(const std::string& text) {
    std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

}  // namespace

std::string CookieValue(const std::string& header, const std::string& name) {
    std::size_t start = 0;
    while (start <= header.size()) {
        std::size_t end = std::min(header.find(';', start), header.size());
        std::string pair = header.substr(start, end - start);
        std::size_t equals = pair.find('=');
        if (equals != std::string::npos && Trim(pair.substr(0, equals)) == name) {
            return Trim(pair.substr(equals + 1));
        }
        start = end + 1;
    }
    return "";
}

// A login is a POST only: a password in a query string ends up in browser
// histories, Referer headers and proxy logs. It is refused before its
// parameters are even read.
//
// Every request must name this host in its Host header: a page an attacker
// serves under a name that resolves here (DNS rebinding) gets nothing.
std::variant<Router::Answer, HandlerCall> Router::Route(const HttpExchange& exchange) {
    if (!records_.names.Allows(exchange.host)) return Refusal(HostError::kForeignHost);
    if (exchange.path == kHealthPath) {
        return exchange.method == "GET" ? Health() : Refusal(HostError::kMethodNotAllowed);
    }
    const bool isAuth = exchange.path == kAuthPath;
    const bool isRecords = exchange.path == kMetricsPath || exchange.path == kAuditPath;
    if (!isAuth && !isRecords && exchange.path != kEntryPath) {
        return Refusal(HostError::kNoSuchEndpoint);
    }
    if (exchange.method != "GET" && exchange.method != "POST") {
        return Refusal(HostError::kMethodNotAllowed);
    }
    if (isAuth && exchange.method != "POST") return Refusal(HostError::kLoginNotPost);
    if (exchange.bodyTooLarge) return Refusal(HostError::kRequestTooLarge);
    ParamsOutcome collected =
        CollectParams(exchange.query, exchange.contentType, exchange.body,
                      isAuth ? ApiService::kAuthNames : ApiService::kCallNames);
    if (!collected.params) return Refusal(HostError::kMalformedRequest);
    // A login's password, or a call's secret, leaves no copy in what is freed.
    struct WipeWhenDone {
        RequestParams& params;
        ~WipeWhenDone() {
            for (auto& [name, value] : params.own) Wipe(value);
            WipeSecrets(params.params);
        }
    } wipe{*collected.params};
    if (IsCrossSite(exchange, *collected.params, isAuth)) return Refusal(HostError::kCrossSite);
    if (isAuth) return Auth(exchange, *collected.params);
    if (isRecords) return Records(exchange, *collected.params);
    auto routed = service_.Route(*collected.params, CredentialsOf(exchange));
    if (auto* reply = std::get_if<ApiReply>(&routed)) {
        return Answer{StatusOf(*reply), std::move(*reply)};
    }
    return std::get<HandlerCall>(std::move(routed));
}

Router::Answer Router::Auth(const HttpExchange& exchange, const RequestParams& params) {
    const auto method = params.own.find("method");
    if (method != params.own.end() && method->second == ApiService::kLogoutMethod) {
        ApiReply reply = service_.Logout(params, CredentialsOf(exchange));
        return Answer{StatusOf(reply), std::move(reply)};
    }
    ApiReply reply = service_.Login(params, exchange.address);
    records_.metrics.CountLogin(LoginOutcome(reply));
    records_.audit.RecordLogin(exchange.address, LoginOutcome(reply));
    return Answer{StatusOf(reply), std::move(reply)};
}

// Only whether requests can be served: nothing a stranger could learn the
// relay's or the box's state from.
Router::Answer Router::Health() const {
    const bool up = records_.state.CanServe();
    Answer answer{up ? 200 : kServiceUnavailable, {}};
    answer.api.body = up ? R"({"status":"ok"})" : R"({"status":"unavailable"})";
    answer.api.result = up ? "ok" : "error=" + std::to_string(kServiceUnavailable);
    return answer;
}

Router::Answer Router::Records(const HttpExchange& exchange, const RequestParams& params) {
    auto session = service_.Authenticate(params, CredentialsOf(exchange));
    if (auto* refused = std::get_if<ApiReply>(&session)) {
        return Answer{StatusOf(*refused), std::move(*refused)};
    }
    Answer answer;
    answer.api.result = "ok";
    if (exchange.path == kMetricsPath) {
        records_.metrics.SetQueueDepth(records_.state.QueueDepth());
        answer.api.body = records_.metrics.Text();
        answer.contentType = kMetricsContentType;
    } else {
        Json::Value data(Json::objectValue);
        data["records"] = records_.audit.Recent();
        answer.api.envelope["success"] = true;
        answer.api.envelope["data"] = data;
    }
    return answer;
}

// A browser says where a request comes from; for a request that relies on
// the cookie alone, anything but this host's own page is refused. The
// anti-forgery token already stops such requests; this stops them earlier
// and also covers browsers that keep cookies on cross-site requests. A
// login another site starts is refused too, before the throttle counts it:
// a foreign page must not spend the administrator's own browser's failures.
bool Router::IsCrossSite(const HttpExchange& exchange, const RequestParams& params,
                         bool isAuth) const {
    const bool cookieOnly =
        params.own.count("_sid") == 0 && !CookieValue(exchange.cookie, kSessionCookie).empty();
    if (!cookieOnly && !isAuth) return false;
    if (!exchange.fetchSite.empty() && exchange.fetchSite != "same-origin" &&
        exchange.fetchSite != "none") {
        return true;
    }
    if (exchange.origin.empty()) return false;
    const std::string host = OriginHost(exchange.origin);
    return host.empty() || !records_.names.Allows(host);
}

// SameSite=Strict: a browser leaves the cookie off requests that other
// sites start, which the anti-forgery token would refuse anyway.
std::string Router::SessionCookie(const std::string& value, const std::string& extra) const {
    return std::string(kSessionCookie) + "=" + value + extra +
           "; HttpOnly; SameSite=Strict; Path=/" + (secure_ ? "; Secure" : "");
}

// An exception must not unwind through the event loop's C frames; whatever
// threw, the client gets an answer.
std::variant<Router::Answer, HandlerCall> Router::Decide(const HttpExchange& exchange) {
    try {
        return Route(exchange);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: request failed: %s\n", error.what());
    } catch (...) {
        std::fprintf(stderr, "farlink-host: request failed with a non-standard exception\n");
    }
    return Answer{200, HostRefusal(HostError::kUnknown)};
}

HttpReply Router::Finish(const HttpExchange& exchange, const Answer& answer, const std::string& ids,
                         std::chrono::steady_clock::time_point started) const {
    HttpReply reply;
    reply.status = answer.status;
    reply.contentType = answer.contentType;
    reply.body = answer.api.body.empty() ? EnvelopeText(answer.api.envelope) : answer.api.body;
    if (!answer.api.newSession.empty()) {
        reply.headers.emplace_back("Set-Cookie", SessionCookie(answer.api.newSession, ""));
    }
    if (answer.api.endedSession) {
        reply.headers.emplace_back("Set-Cookie", SessionCookie("", "; Max-Age=0"));
    }
    if (answer.status == kMethodNotAllowed) {
        const bool login = exchange.path == kAuthPath;
        reply.headers.emplace_back("Allow", login ? "POST" : "GET, POST");
    }
    if (answer.api.retryAfter.count() > 0) {
        reply.headers.emplace_back("Retry-After", std::to_string(answer.api.retryAfter.count()));
    }

    const auto latency = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - started);
    log_.Write({exchange.client, exchange.method, exchange.path, answer.status, answer.api.call,
                answer.api.result, latency, ids, answer.api.answers});
    records_.metrics.CountRequest(answer.api.call, answer.api.result, latency);
    return reply;
}

}  // namespace farlink::host
