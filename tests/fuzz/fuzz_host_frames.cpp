// The frames between the host's processes: a stream of frames as a worker
// reads requests (MessageReader) and as the supervisor reads a greeting
// (ReadMessage), each message taken as a greeting and as a call, and the
// input as a worker's answer. What decodes must encode back to itself.
#include <channel.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz_check.h"

namespace {

using namespace farlink::host;

// The frame's message, as the reader on the other side would see it.
std::optional<Json::Value> Reparse(const std::string& frame) {
    FUZZ_CHECK(frame.size() >= kFrameHeaderSize);
    return ParseMessage(frame.data() + kFrameHeaderSize, frame.size() - kFrameHeaderSize);
}

void CheckCallRoundTrip(const HandlerCall& call) {
    const std::optional<Json::Value> again = Reparse(EncodeFrame(CallMessage(call)));
    FUZZ_CHECK(again);
    const std::optional<HandlerCall> decoded = ParseCall(*again);
    FUZZ_CHECK(decoded && decoded->api == call.api && decoded->version == call.version &&
               decoded->method == call.method && decoded->params == call.params);
}

void CheckHello(const Json::Value& message) {
    std::string failure;
    const auto rows = ParseHello(message, failure);
    FUZZ_CHECK(rows.has_value() == failure.empty());
    if (!rows) return;
    std::string again;
    const auto decoded = ParseHello(*Reparse(EncodeFrame(HelloMessage(*rows))), again);
    FUZZ_CHECK(decoded && decoded->size() == rows->size());
    for (std::size_t i = 0; i < rows->size(); ++i) {
        const RowName &a = (*rows)[i], &b = (*decoded)[i];
        FUZZ_CHECK(a.api == b.api && a.version == b.version && a.method == b.method);
    }
}

void CheckMessage(const Json::Value& message) {
    FUZZ_CHECK(message.isObject());
    CheckHello(message);
    if (const auto call = ParseCall(message)) CheckCallRoundTrip(*call);
}

void CheckAnswer(std::string_view payload) {
    const std::optional<WorkerAnswer> answer = ParseAnswer(payload.data(), payload.size());
    if (!answer) return;
    const std::string frame = AnswerFrame(*answer);
    const auto again =
        ParseAnswer(frame.data() + kFrameHeaderSize, frame.size() - kFrameHeaderSize);
    FUZZ_CHECK(again && again->reply.call == answer->reply.call &&
               again->reply.result == answer->reply.result &&
               again->reply.answers == answer->reply.answers &&
               again->reply.body == answer->reply.body && again->ids == answer->ids);
}

// A pipe holding the input, its writing end closed: a peer that sent these
// bytes and hung up. Inputs beyond the pipe's capacity are cut.
struct FilledPipe {
    int read = -1;
    FilledPipe(const std::uint8_t* data, std::size_t size) {
        int ends[2];
        FUZZ_CHECK(pipe2(ends, O_CLOEXEC) == 0);
        read = ends[0];
        const auto capacity = static_cast<std::size_t>(fcntl(ends[1], F_GETPIPE_SZ));
        const std::size_t length = std::min(size, capacity);
        FUZZ_CHECK(length == 0 || write(ends[1], data, length) == static_cast<ssize_t>(length));
        close(ends[1]);
    }
    ~FilledPipe() { close(read); }
    FilledPipe(const FilledPipe&) = delete;
    FilledPipe& operator=(const FilledPipe&) = delete;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        FilledPipe stream(data, size);
        MessageReader reader(stream.read);
        while (const auto message = reader.Next()) CheckMessage(*message);
    }
    {
        FilledPipe stream(data, size);
        if (const auto message = ReadMessage(stream.read)) CheckMessage(*message);
    }
    CheckAnswer(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
