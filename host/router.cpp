#include "router.h"

#include <json/writer.h>

#include <cstdio>
#include <exception>

namespace farlink::host {

namespace {

constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kPayloadTooLarge = 413;
constexpr int kTooManyRequests = 429;

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
            return kForbidden;
        case HostError::kTooManyLogins:
            return kTooManyRequests;
        default:
            return 200;
    }
}

Router::Answer Refusal(HostError error) {
    ApiReply reply = ApiService::Failure(error);
    return {StatusOf(reply), std::move(reply)};
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
std::variant<Router::Answer, HandlerCall> Router::Route(const HttpExchange& exchange) {
    const bool isAuth = exchange.path == kAuthPath;
    if (!isAuth && exchange.path != kEntryPath) return Refusal(HostError::kNoSuchEndpoint);
    if (exchange.method != "GET" && exchange.method != "POST") {
        return Refusal(HostError::kMethodNotAllowed);
    }
    if (isAuth && exchange.method != "POST") return Refusal(HostError::kLoginNotPost);
    if (exchange.bodyTooLarge) return Refusal(HostError::kRequestTooLarge);
    ParamsOutcome collected =
        CollectParams(exchange.query, exchange.contentType, exchange.body,
                      isAuth ? ApiService::kAuthNames : ApiService::kCallNames);
    if (!collected.params) return Refusal(HostError::kMalformedRequest);
    if (isAuth) return Auth(exchange, *collected.params);
    auto routed = service_.Route(*collected.params,
                                 {CookieValue(exchange.cookie, kSessionCookie), exchange.token});
    if (auto* reply = std::get_if<ApiReply>(&routed)) {
        return Answer{StatusOf(*reply), std::move(*reply)};
    }
    return std::get<HandlerCall>(std::move(routed));
}

Router::Answer Router::Auth(const HttpExchange& exchange, const RequestParams& params) {
    const auto method = params.own.find("method");
    ApiReply reply = method != params.own.end() && method->second == ApiService::kLogoutMethod
                         ? service_.Logout(params, {CookieValue(exchange.cookie, kSessionCookie),
                                                    exchange.token})
                         : service_.Login(params, exchange.address);
    return Answer{StatusOf(reply), std::move(reply)};
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
    return Answer{200, ApiService::Failure(HostError::kUnknown)};
}

HttpReply Router::Finish(const HttpExchange& exchange, const Answer& answer, const std::string& ids,
                         std::chrono::steady_clock::time_point started) const {
    HttpReply reply;
    reply.status = answer.status;
    reply.body = answer.api.body.empty() ? EnvelopeText(answer.api.envelope) : answer.api.body;
    if (!answer.api.newSession.empty()) {
        reply.headers.emplace_back("Set-Cookie", SessionCookie(answer.api.newSession, ""));
    }
    if (answer.api.endedSession) {
        reply.headers.emplace_back("Set-Cookie", SessionCookie("", "; Max-Age=0"));
    }
    if (answer.status == kMethodNotAllowed) {
        const bool login = answer.api.error == CodeOf(HostError::kLoginNotPost);
        reply.headers.emplace_back("Allow", login ? "POST" : "GET, POST");
    }
    if (answer.api.retryAfter.count() > 0) {
        reply.headers.emplace_back("Retry-After", std::to_string(answer.api.retryAfter.count()));
    }

    log_.Write({exchange.client, exchange.method, exchange.path, answer.status, answer.api.call,
                answer.api.result,
                std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::steady_clock::now() - started),
                ids, answer.api.answers});
    return reply;
}

}  // namespace farlink::host
