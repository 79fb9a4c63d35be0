// A call of a module handler as it crosses from the front to a worker, and
// the answer that comes back: what both sides of the channel speak of.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "host_errors.h"

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

// A request that has passed every check the front makes: what a worker runs.
struct HandlerCall {
    std::string api;
    std::uint32_t version = 0;
    std::string method;
    Json::Value params{Json::objectValue};
    std::string session;  // the front's, for the audit log; never sent to a worker

    std::string Label() const;  // "api/version/method"
};

// The envelope as the HTTP body carries it: compact JSON.
std::string EnvelopeText(const Json::Value& envelope);

ApiReply SuccessReply(const Json::Value& data);
ApiReply ErrorReply(int code);
// The host's own refusal, with its code kept apart from the module's.
ApiReply HostRefusal(HostError error);

}  // namespace farlink::host
