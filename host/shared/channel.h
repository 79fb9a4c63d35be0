// The messages between the front and a worker: framed JSON over a stream
// socket (a 4-byte big-endian length, then the message as compact JSON text
// with its bytes as they are, so that strings cross unchanged).
//
//   worker -> front, once, when it is ready:  {"rows":[[api,version,method],...]}
//                              or it failed:  {"error":"reason"}
//   front -> worker, a request:               {"api":..,"version":..,"method":..,"params":{..}}
//   worker -> front, its answer:              {"call":..,"result":"ok","answers":1,"ids":"ids-ok"}
//                                             then a newline and the envelope as the HTTP body
//                                             carries it, so that the front passes it on as is
#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api_table.h"
#include "call.h"

namespace farlink::host {

constexpr std::size_t kFrameHeaderSize = 4;
// Far above any request the front accepts (--max-body is at most 1 GiB).
constexpr std::uint32_t kMaxFrameSize = 0x7fffffffu;

std::string EncodeFrame(const Json::Value& message);
// The payload length a frame header announces.
std::uint32_t FrameLength(const unsigned char header[kFrameHeaderSize]);
// The message in a frame's payload; nullopt when it is not one JSON object.
std::optional<Json::Value> ParseMessage(const char* data, std::size_t size);

// Blocking, for the supervisor's wait on a new worker: nullopt on end of
// file, an error or a malformed frame.
std::optional<Json::Value> ReadMessage(int fd);

// The same for a worker's stream of requests, reading ahead so that a
// request usually costs one read.
class MessageReader {
public:
    explicit MessageReader(int fd) : fd_(fd) {}
    std::optional<Json::Value> Next();

private:
    bool Fill(std::size_t wanted);

    int fd_;
    std::string buffer_;
    std::size_t used_ = 0;
};
bool WriteMessage(int fd, const Json::Value& message);

Json::Value HelloMessage(const std::vector<RowName>& rows);
Json::Value HelloFailure(const std::string& reason);
// The rows of a hello, or the worker's reason for failing in `failure`.
std::optional<std::vector<RowName>> ParseHello(const Json::Value& hello, std::string& failure);

Json::Value CallMessage(const HandlerCall& call);
std::optional<HandlerCall> ParseCall(const Json::Value& message);

struct WorkerAnswer {
    ApiReply reply;   // its body set; the envelope is not sent
    std::string ids;  // "ids-ok" or "ids-restored"
};
std::string AnswerFrame(const WorkerAnswer& answer);
std::optional<WorkerAnswer> ParseAnswer(const char* payload, std::size_t size);

}  // namespace farlink::host
