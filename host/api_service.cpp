#include "api_service.h"

#include <json/writer.h>
#include <openssl/crypto.h>

#include <limits>
#include <memory>
#include <sstream>

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

std::string EnvelopeText(const Json::Value& envelope) {
    // One writer per process: building one costs more than most envelopes.
    static const std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }();
    std::ostringstream text;
    writer->write(envelope, &text);
    return text.str();
}

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

std::string HandlerCall::Label() const {
    return api + "/" + std::to_string(version) + "/" + method;
}

std::variant<ApiReply, HandlerCall> ApiService::Route(const RequestParams& request,
                                                      const std::string& cookieSession) const {
    const std::string session = request.own.count("_sid") ? Own(request, "_sid") : cookieSession;
    if (session.empty() || !sessions_.IsValid(session)) return Failure(HostError::kNotLoggedIn);

    HandlerCall call;
    call.api = Own(request, "api");
    call.method = Own(request, "method");
    const std::optional<std::uint32_t> version = ParseVersion(Own(request, "version"));
    if (call.api.empty() || call.method.empty() || !version) {
        return Failure(HostError::kMalformedRequest);
    }
    call.version = *version;
    ApiTable::Lookup lookup = table_.Find(call.api, call.version, call.method);
    if (!lookup.found) {
        ApiReply reply = Failure(lookup.error);
        reply.call = call.Label();
        return reply;
    }
    call.params = request.params;
    return call;
}

ApiReply RunHandler(ORVO::APIHandler handler, const HandlerCall& call) {
    // The request object holds the version as an int; a table version above
    // INT_MAX reaches its handler wrapped.
    ORVO::APIRequest apiRequest(call.api, static_cast<int>(call.version), call.method, call.params);
    ORVO::APIResponse apiResponse;
    handler(&apiRequest, &apiResponse);

    ApiReply reply = ReplyFromAnswer(apiResponse);
    reply.call = call.Label();
    reply.body = EnvelopeText(reply.envelope);
    return reply;
}

}  // namespace farlink::host
