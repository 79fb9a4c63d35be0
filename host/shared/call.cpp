#include "call.h"

#include <json/writer.h>

#include <memory>
#include <sstream>

namespace farlink::host {

std::string HandlerCall::Label() const {
    return api + "/" + std::to_string(version) + "/" + method;
}

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

ApiReply SuccessReply(const Json::Value& data) {
    ApiReply reply;
    reply.envelope = Json::Value(Json::objectValue);
    reply.envelope["success"] = true;
    if (!data.isNull()) reply.envelope["data"] = data;
    reply.result = "ok";
    return reply;
}

ApiReply ErrorReply(int code) {
    ApiReply reply;
    reply.envelope = Json::Value(Json::objectValue);
    reply.envelope["success"] = false;
    reply.envelope["error"]["code"] = code;
    reply.result = "error=" + std::to_string(code);
    return reply;
}

ApiReply HostRefusal(HostError error) {
    ApiReply reply = ErrorReply(CodeOf(error));
    reply.error = CodeOf(error);
    return reply;
}

}  // namespace farlink::host
