#include "channel.h"

#include <farlink/file_io.h>
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace farlink::host {

namespace {

std::string Serialize(const Json::Value& message) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;  // bytes pass as they are, valid UTF-8 or not
    return Json::writeString(builder, message);
}

bool ReadExactly(int fd, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::read(fd, data, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        data += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool IsUInt32(const Json::Value& value) {
    return value.isUInt() && value.asUInt() >= 1;
}

}  // namespace

std::string EncodeFrame(const Json::Value& message) {
    const std::string payload = Serialize(message);
    const auto size = static_cast<std::uint32_t>(payload.size());
    std::string frame;
    frame.reserve(kFrameHeaderSize + payload.size());
    for (int shift = 24; shift >= 0; shift -= 8) frame.push_back(static_cast<char>(size >> shift));
    frame += payload;
    return frame;
}

std::uint32_t FrameLength(const unsigned char header[kFrameHeaderSize]) {
    return static_cast<std::uint32_t>(header[0]) << 24 | static_cast<std::uint32_t>(header[1]) << 16 |
           static_cast<std::uint32_t>(header[2]) << 8 | header[3];
}

std::optional<Json::Value> ParseMessage(const char* data, std::size_t size) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value message;
    std::string errors;
    if (!reader->parse(data, data + size, &message, &errors) || !message.isObject()) {
        return std::nullopt;
    }
    return message;
}

std::optional<Json::Value> ReadMessage(int fd) {
    unsigned char header[kFrameHeaderSize];
    if (!ReadExactly(fd, reinterpret_cast<char*>(header), sizeof header)) return std::nullopt;
    const std::uint32_t size = FrameLength(header);
    if (size > kMaxFrameSize) return std::nullopt;
    std::string payload(size, '\0');
    if (!ReadExactly(fd, payload.data(), size)) return std::nullopt;
    return ParseMessage(payload.data(), payload.size());
}

bool WriteMessage(int fd, const Json::Value& message) {
    const std::string frame = EncodeFrame(message);
    return WriteAll(fd, frame.data(), frame.size());
}

Json::Value HelloMessage(const std::vector<RowName>& rows) {
    Json::Value hello(Json::objectValue);
    Json::Value& list = hello["rows"] = Json::Value(Json::arrayValue);
    for (const RowName& row : rows) {
        Json::Value entry(Json::arrayValue);
        entry.append(row.api);
        entry.append(row.version);
        entry.append(row.method);
        list.append(entry);
    }
    return hello;
}

Json::Value HelloFailure(const std::string& reason) {
    Json::Value hello(Json::objectValue);
    hello["error"] = reason;
    return hello;
}

std::optional<std::vector<RowName>> ParseHello(const Json::Value& hello, std::string& failure) {
    if (hello["error"].isString()) {
        failure = hello["error"].asString();
        return std::nullopt;
    }
    const Json::Value& list = hello["rows"];
    failure = "a worker sent a malformed greeting";
    if (!list.isArray() || list.empty()) return std::nullopt;
    std::vector<RowName> rows;
    for (const Json::Value& entry : list) {
        if (!entry.isArray() || entry.size() != 3 || !entry[0].isString() ||
            !IsUInt32(entry[1]) || !entry[2].isString()) {
            return std::nullopt;
        }
        rows.push_back({entry[0].asString(), entry[1].asUInt(), entry[2].asString()});
    }
    failure.clear();
    return rows;
}

Json::Value CallMessage(const HandlerCall& call) {
    Json::Value message(Json::objectValue);
    message["api"] = call.api;
    message["version"] = call.version;
    message["method"] = call.method;
    message["params"] = call.params;
    return message;
}

std::optional<HandlerCall> ParseCall(const Json::Value& message) {
    if (!message["api"].isString() || !IsUInt32(message["version"]) ||
        !message["method"].isString() || !message["params"].isObject()) {
        return std::nullopt;
    }
    return HandlerCall{message["api"].asString(), message["version"].asUInt(),
                       message["method"].asString(), message["params"]};
}

Json::Value AnswerMessage(const WorkerAnswer& answer) {
    Json::Value message(Json::objectValue);
    message["envelope"] = answer.reply.envelope;
    message["call"] = answer.reply.call;
    message["result"] = answer.reply.result;
    message["answers"] = answer.reply.answers;
    message["ids"] = answer.ids;
    return message;
}

std::optional<WorkerAnswer> ParseAnswer(const Json::Value& message) {
    if (!message["envelope"].isObject() || !message["call"].isString() ||
        !message["result"].isString() || !message["answers"].isInt() ||
        !message["ids"].isString()) {
        return std::nullopt;
    }
    WorkerAnswer answer;
    answer.reply.envelope = message["envelope"];
    answer.reply.call = message["call"].asString();
    answer.reply.result = message["result"].asString();
    answer.reply.answers = message["answers"].asInt();
    answer.ids = message["ids"].asString();
    return answer;
}

}  // namespace farlink::host
