#include "http_engine.h"

#include <algorithm>

namespace farlink::host {

namespace {

constexpr ev_uint16_t kAllMethods = EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_HEAD |
                                    EVHTTP_REQ_PUT | EVHTTP_REQ_DELETE | EVHTTP_REQ_OPTIONS |
                                    EVHTTP_REQ_TRACE | EVHTTP_REQ_CONNECT | EVHTTP_REQ_PATCH;

// The HTTP engine refuses bodies beyond its own limit with a bare 413 and
// without reading them. It is set above ours so that a body a little too
// large still gets our JSON answer, while a huge one is never buffered.
ev_ssize_t EngineBodyLimit(std::size_t maxBody) {
    constexpr std::size_t kSlack = 64 * 1024;
    return static_cast<ev_ssize_t>(maxBody + std::max(maxBody, kSlack));
}

}  // namespace

void ConfigureEngine(evhttp* http, const Options& options,
                     void (*onRequest)(evhttp_request*, void*), void* context) {
    evhttp_set_max_body_size(http, EngineBodyLimit(options.maxBody));
    evhttp_set_max_headers_size(http, 64 * 1024);
    evhttp_set_timeout(http, static_cast<int>(options.requestTimeout.count()));
    // Every method reaches us, so that a wrong one gets our JSON answer.
    evhttp_set_allowed_methods(http, kAllMethods);
    // Read the rest of a refused body, so the client sees the answer.
    evhttp_set_flags(http, EVHTTP_SERVER_LINGERING_CLOSE);
    evhttp_set_gencb(http, onRequest, context);
}

ConnectionLimits ConnectionLimitsOf(const Options& options) {
    ConnectionLimits limits;
    limits.maxConnections = options.maxConnections;
    limits.perAddress = options.maxConnectionsPerAddress;
    limits.unlimitedAddresses = {options.unlimitedAddresses.begin(),
                                 options.unlimitedAddresses.end()};
    limits.proxyPeers = {options.proxyPeers.begin(), options.proxyPeers.end()};
    limits.headerTimeout = options.headerTimeout;
    limits.keepAliveTimeout = options.keepAliveTimeout;
    return limits;
}

SessionLimits SessionLimitsOf(const Options& options) {
    return {options.sessionIdleTimeout, options.sessionLifetime, options.maxSessions};
}

}  // namespace farlink::host
