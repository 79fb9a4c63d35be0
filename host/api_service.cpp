#include "api_service.h"

#include <openssl/crypto.h>

#include <limits>

namespace farlink::host {

const std::set<std::string> ApiService::kLoginNames = {"account", "passwd"};
const std::set<std::string> ApiService::kCallNames = {"api", "version", "method", "_sid"};

namespace {

Json::Value SuccessEnvelope(const Json::Value& data) {
    Json::Value envelope(Json::objectValue);
    envelope["success"] = true;
    if (!data.isNull()) envelope["data"] = data;
    return envelope;
}

Json::Value ErrorEnvelope(int code) {
    Json::Value envelope(Json::objectValue);
    envelope["success"] = false;
    envelope["error"]["code"] = code;
    return envelope;
}

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

ApiReply ErrorReply(int code) {
    ApiReply reply;
    reply.envelope = ErrorEnvelope(code);
    reply.result = "error=" + std::to_string(code);
    return reply;
}

ApiReply ReplyFromAnswer(const ORVO::APIResponse& response) {
    if (!response.IsAnswered()) return ErrorReply(CodeOf(HostError::kNoAnswer));
    ApiReply reply;
    if (response.IsSuccess()) {
        reply.envelope = SuccessEnvelope(response.GetData());
        reply.result = "ok";
    } else {
        reply = ErrorReply(response.GetErrorCode());
    }
    reply.answers = response.AnswerCount();
    return reply;
}

}  // namespace

ApiReply ApiService::Failure(HostError error) { return ErrorReply(CodeOf(error)); }

bool ApiService::PasswordMatches(const std::string& given) const {
    return given.size() == adminPassword_.size() &&
           CRYPTO_memcmp(given.data(), adminPassword_.data(), given.size()) == 0;
}

ApiReply ApiService::Login(const RequestParams& request) {
    if (Own(request, "account") != kAdminAccount || !PasswordMatches(Own(request, "passwd"))) {
        return Failure(HostError::kBadLogin);
    }
    std::optional<std::string> session = sessions_.Create();
    if (!session) return Failure(HostError::kUnknown);

    Json::Value data(Json::objectValue);
    data["sid"] = *session;
    ApiReply reply;
    reply.envelope = SuccessEnvelope(data);
    reply.result = "ok";
    reply.newSession = *session;
    return reply;
}

ApiReply ApiService::Call(const RequestParams& request, const std::string& cookieSession) {
    const std::string session = request.own.count("_sid") ? Own(request, "_sid") : cookieSession;
    if (session.empty() || !sessions_.IsValid(session)) return Failure(HostError::kNotLoggedIn);

    const std::string api = Own(request, "api");
    const std::string method = Own(request, "method");
    const std::optional<std::uint32_t> version = ParseVersion(Own(request, "version"));
    if (api.empty() || method.empty() || !version) return Failure(HostError::kMalformedRequest);

    const std::string call = api + "/" + std::to_string(*version) + "/" + method;
    ApiTable::Lookup lookup = table_.Find(api, *version, method);
    if (lookup.handler == nullptr) {
        ApiReply reply = Failure(lookup.error);
        reply.call = call;
        return reply;
    }

    // The request object holds the version as an int; a table version above
    // INT_MAX reaches its handler wrapped.
    ORVO::APIRequest apiRequest(api, static_cast<int>(*version), method, request.params);
    ORVO::APIResponse apiResponse;
    lookup.handler(&apiRequest, &apiResponse);

    ApiReply reply = ReplyFromAnswer(apiResponse);
    reply.call = call;
    return reply;
}

}  // namespace farlink::host
