#include "channel.h"

#include <farlink/file_io.h>
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <ostream>
#include <sstream>
#include <streambuf>

#include "secrets.h"

namespace farlink::host {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

Json::StreamWriter& CompactWriter() {
    static const std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;  // bytes pass as they are, valid UTF-8 or not
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }();
    return *writer;
}

std::string Serialize(const Json::Value& message) {
    std::ostringstream text;
    CompactWriter().write(message, &text);
    return text.str();
}

// A stream buffer that grows one string and wipes each buffer it outgrows,
// so that a frame's text (a call's secret among it) leaves no copy behind
// in freed memory.
class WipingStringBuffer : public std::streambuf {
public:
    std::string& Text() { return text_; }

protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        const char ch = traits_type::to_char_type(c);
        xsputn(&ch, 1);
        return c;
    }
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        const auto count = static_cast<std::size_t>(size);
        if (text_.size() + count > text_.capacity()) {
            std::string bigger;
            bigger.reserve(std::max(2 * text_.capacity(), text_.size() + count));
            bigger.append(text_);
            Wipe(text_);
            text_.swap(bigger);
        }
        text_.append(data, count);
        return size;
    }

private:
    std::string text_;
};

std::string FrameHeader(std::size_t size) {
    std::string header;
    for (int shift = 24; shift >= 0; shift -= 8)
        header.push_back(static_cast<char>(static_cast<std::uint32_t>(size) >> shift));
    return header;
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

bool IsUInt32(const Json::Value& value) { return value.isUInt() && value.asUInt() >= 1; }

}  // namespace

std::string EncodeFrame(const Json::Value& message) {
    WipingStringBuffer buffer;
    std::ostream frame(&buffer);
    frame.write("\0\0\0\0", kFrameHeaderSize);  // the length, once known
    CompactWriter().write(message, &frame);
    std::string text = std::move(buffer.Text());
    text.replace(0, kFrameHeaderSize, FrameHeader(text.size() - kFrameHeaderSize));
    return text;
}

std::uint32_t FrameLength(const unsigned char header[kFrameHeaderSize]) {
    return static_cast<std::uint32_t>(header[0]) << 24 |
           static_cast<std::uint32_t>(header[1]) << 16 |
           static_cast<std::uint32_t>(header[2]) << 8 | header[3];
}

std::optional<Json::Value> ParseMessage(const char* data, std::size_t size) {
    static const std::unique_ptr<Json::CharReader> reader(
        Json::CharReaderBuilder().newCharReader());
    Json::Value message;
    std::string errors;
    try {
        if (!reader->parse(data, data + size, &message, &errors) || !message.isObject()) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {
        return std::nullopt;  // nested deeper than the reader's stack limit
    }
    return message;
}

std::optional<Json::Value> ReadMessage(int fd) {
    unsigned char header[kFrameHeaderSize];
    if (!ReadExactly(fd, reinterpret_cast<char*>(header), sizeof header)) return std::nullopt;
    const std::uint32_t size = FrameLength(header);
    if (size > kMaxFrameSize) return std::nullopt;
    // Grown as the bytes arrive: a header alone must not cost the memory it
    // announces.
    std::string payload;
    while (payload.size() < size) {
        const std::size_t had = payload.size();
        const std::size_t chunk = std::min<std::size_t>(size - had, kReadChunk);
        payload.resize(had + chunk);
        if (!ReadExactly(fd, payload.data() + had, chunk)) return std::nullopt;
    }
    return ParseMessage(payload.data(), payload.size());
}

bool MessageReader::Fill(std::size_t wanted) {
    buffer_.erase(0, used_);
    used_ = 0;
    while (buffer_.size() < wanted) {
        char chunk[kReadChunk];
        const ssize_t got = ::read(fd_, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        buffer_.append(chunk, static_cast<std::size_t>(got));
    }
    return true;
}

std::optional<Json::Value> MessageReader::Next() {
    if (buffer_.size() - used_ < kFrameHeaderSize && !Fill(kFrameHeaderSize)) return std::nullopt;
    const std::uint32_t size =
        FrameLength(reinterpret_cast<const unsigned char*>(buffer_.data() + used_));
    if (size > kMaxFrameSize) return std::nullopt;
    if (buffer_.size() - used_ - kFrameHeaderSize < size && !Fill(kFrameHeaderSize + size)) {
        return std::nullopt;
    }
    std::optional<Json::Value> message =
        ParseMessage(buffer_.data() + used_ + kFrameHeaderSize, size);
    used_ += kFrameHeaderSize + size;
    return message;
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
        if (!entry.isArray() || entry.size() != 3 || !entry[0].isString() || !IsUInt32(entry[1]) ||
            !entry[2].isString()) {
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
    HandlerCall call;
    call.api = message["api"].asString();
    call.version = message["version"].asUInt();
    call.method = message["method"].asString();
    call.params = message["params"];
    return call;
}

std::string AnswerFrame(const WorkerAnswer& answer) {
    Json::Value meta(Json::objectValue);
    meta["call"] = answer.reply.call;
    meta["result"] = answer.reply.result;
    meta["answers"] = answer.reply.answers;
    meta["ids"] = answer.ids;
    // Compact JSON escapes every newline, so the first one ends the meta.
    const std::string payload = Serialize(meta) + "\n" + answer.reply.body;
    return FrameHeader(payload.size()) + payload;
}

std::optional<WorkerAnswer> ParseAnswer(const char* payload, std::size_t size) {
    const char* end = payload + size;
    const char* newline = std::find(payload, end, '\n');
    if (newline == end) return std::nullopt;
    std::optional<Json::Value> meta =
        ParseMessage(payload, static_cast<std::size_t>(newline - payload));
    if (!meta || !(*meta)["call"].isString() || !(*meta)["result"].isString() ||
        !(*meta)["answers"].isInt() || !(*meta)["ids"].isString()) {
        return std::nullopt;
    }
    WorkerAnswer answer;
    answer.reply.call = (*meta)["call"].asString();
    answer.reply.result = (*meta)["result"].asString();
    answer.reply.answers = (*meta)["answers"].asInt();
    answer.reply.body.assign(newline + 1, end);
    answer.ids = (*meta)["ids"].asString();
    return answer;
}

}  // namespace farlink::host
