// Error codes the server itself answers with. They sit outside the module's
// own range (2900-2911) so that a client can always tell who refused.
#pragma once

namespace farlink::host {

enum class HostError : int {
    kUnknown = 100,
    kMalformedRequest = 101,
    kUnknownApi = 102,
    kUnknownMethod = 103,
    kUnsupportedVersion = 104,
    kNotLoggedIn = 105,
    kNoAnswer = 106,
    kRequestTooLarge = 107,
    kMethodNotAllowed = 108,
    kNoSuchEndpoint = 109,
    kWorkerDied = 110,      // the worker running the handler died (signal, abort, exit)
    kHandlerTimeout = 111,  // the handler ran past --handler-timeout; its worker was killed
    kBusy = 112,            // too many requests waiting for a worker (HTTP 503)
    kLoginNotPost = 113,    // a login must be a POST (HTTP 405)
    kBadToken = 114,        // a cookie-only request without its session's token (HTTP 403)
    kTooManyLogins = 115,   // too many failed logins from this address (HTTP 429)
    kForeignHost = 116,     // the Host header names no name this host answers to (HTTP 421)
    kCrossSite = 117,       // a cookie-authenticated request another site started (HTTP 403)
    kBadLogin = 400,
};

constexpr int CodeOf(HostError error) { return static_cast<int>(error); }

}  // namespace farlink::host
