#include "router.h"

#include <json/writer.h>

#include <cstdio>
#include <exception>

namespace farlink::host {

namespace {

constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kPayloadTooLarge = 413;

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

std::variant<Router::Answer, HandlerCall> Router::Route(const HttpExchange& exchange) {
    const bool isAuth = exchange.path == kAuthPath;
    if (!isAuth && exchange.path != kEntryPath) {
        return Answer{kNotFound, ApiService::Failure(HostError::kNoSuchEndpoint)};
    }
    if (exchange.method != "GET" && exchange.method != "POST") {
        return Answer{kMethodNotAllowed, ApiService::Failure(HostError::kMethodNotAllowed)};
    }
    if (exchange.bodyTooLarge) {
        return Answer{kPayloadTooLarge, ApiService::Failure(HostError::kRequestTooLarge)};
    }
    ParamsOutcome collected =
        CollectParams(exchange.query, exchange.contentType, exchange.body,
                      isAuth ? ApiService::kLoginNames : ApiService::kCallNames);
    if (!collected.params) return Answer{200, ApiService::Failure(HostError::kMalformedRequest)};
    if (isAuth) return Answer{200, service_.Login(*collected.params)};
    auto routed = service_.Route(*collected.params, CookieValue(exchange.cookie, kSessionCookie));
    if (auto* reply = std::get_if<ApiReply>(&routed)) return Answer{200, std::move(*reply)};
    return std::get<HandlerCall>(std::move(routed));
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
    reply.headers.emplace_back("Content-Type", "application/json; charset=utf-8");
    if (!answer.api.newSession.empty()) {
        reply.headers.emplace_back("Set-Cookie", std::string(kSessionCookie) + "=" +
                                                     answer.api.newSession + "; HttpOnly; Path=/");
    }
    if (answer.status == kMethodNotAllowed) reply.headers.emplace_back("Allow", "GET, POST");

    log_.Write({exchange.client, exchange.method, exchange.path, answer.status, answer.api.call,
                answer.api.result,
                std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::steady_clock::now() - started),
                ids, answer.api.answers});
    return reply;
}

}  // namespace farlink::host
