#include "api_service.h"

#include <openssl/crypto.h>

#include <limits>

namespace farlink::host {

const std::set<std::string> ApiService::kAuthNames = {"account", "passwd", "method", "_sid"};
const std::set<std::string> ApiService::kCallNames = {"api", "version", "method", "_sid"};

namespace {

std::string Own(const RequestParams& request, const std::string& name) {
    auto found = request.own.find(name);
    return found == request.own.end() ? std::string() : found->second;
}

// Decimal 1..2^32-1, no sign, no leading zero.
std::optional<std::uint32_t> ParseVersion(const std::string& text) {
    if (text.empty() || text.size() > 10 || text[0] == '0' ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    unsigned long long value = std::stoull(text);
    if (value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

// In constant time for equal lengths: an answer's timing must not tell how
// much of a guess was right.
bool SameSecret(const std::string& given, const std::string& expected) {
    return !expected.empty() && given.size() == expected.size() &&
           CRYPTO_memcmp(given.data(), expected.data(), given.size()) == 0;
}

}  // namespace

// While the address must wait the password is not even compared, so that
// waiting cannot be skipped by guessing faster.
ApiReply ApiService::Login(const RequestParams& request, const std::string& address) {
    if (const std::chrono::seconds wait = throttle_.Wait(address); wait.count() > 0) {
        ApiReply reply = HostRefusal(HostError::kTooManyLogins);
        reply.retryAfter = wait;
        return reply;
    }
    if (Own(request, "account") != kAdminAccount ||
        !PasswordMatches(adminPassword_, Own(request, "passwd"))) {
        throttle_.Failed(address);
        return HostRefusal(HostError::kBadLogin);
    }
    throttle_.Succeeded(address);
    std::optional<Session> session = sessions_.Create();
    if (!session) return HostRefusal(HostError::kUnknown);

    Json::Value data(Json::objectValue);
    data["sid"] = session->id;
    data["token"] = session->token;
    ApiReply reply = SuccessReply(data);
    reply.newSession = session->id;
    return reply;
}

// `_sid` names the session outright. A session that comes from the cookie
// alone must show its token as well: a browser sends the cookie with any
// request, whichever page made it, but only the page that logged in knows
// the token.
std::variant<ApiReply, std::string> ApiService::Authenticate(const RequestParams& request,
                                                             const Credentials& credentials) {
    const bool named = request.own.count("_sid") != 0;
    const std::string id = named ? Own(request, "_sid") : credentials.cookieSession;
    const std::optional<std::string> token = id.empty() ? std::nullopt : sessions_.TokenOf(id);
    if (!token) return HostRefusal(HostError::kNotLoggedIn);
    if (!named && !SameSecret(credentials.token, *token)) return HostRefusal(HostError::kBadToken);
    sessions_.Touch(id);
    return id;
}

ApiReply ApiService::Logout(const RequestParams& request, const Credentials& credentials) {
    auto session = Authenticate(request, credentials);
    if (auto* refused = std::get_if<ApiReply>(&session)) return std::move(*refused);
    sessions_.End(std::get<std::string>(session));
    ApiReply reply = SuccessReply(Json::Value());
    reply.endedSession = true;
    return reply;
}

std::variant<ApiReply, HandlerCall> ApiService::Route(const RequestParams& request,
                                                      const Credentials& credentials) {
    auto session = Authenticate(request, credentials);
    if (auto* refused = std::get_if<ApiReply>(&session)) return std::move(*refused);

    HandlerCall call;
    call.api = Own(request, "api");
    call.method = Own(request, "method");
    const std::optional<std::uint32_t> version = ParseVersion(Own(request, "version"));
    if (call.api.empty() || call.method.empty() || !version) {
        return HostRefusal(HostError::kMalformedRequest);
    }
    call.version = *version;
    ApiTable::Lookup lookup = table_.Find(call.api, call.version, call.method);
    if (!lookup.found) {
        ApiReply reply = HostRefusal(lookup.error);
        reply.call = call.Label();
        return reply;
    }
    call.params = request.params;
    call.session = std::get<std::string>(std::move(session));
    return call;
}

}  // namespace farlink::host
