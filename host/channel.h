// The messages between the front and a worker: framed JSON over a stream
// socket (a 4-byte big-endian length, then the message as compact JSON text
// with its bytes as they are, so that strings cross unchanged).
//
//   worker -> front, once, when it is ready:  {"rows":[[api,version,method],...]}
//                              or it failed:  {"error":"reason"}
//   front -> worker, a request:               {"api":..,"version":..,"method":..,"params":{..}}
//   worker -> front, its answer:              {"envelope":{..},"result":"ok","answers":1,"ids":"ids-ok"}
#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api_service.h"
#include "api_table.h"

namespace farlink::host {

constexpr std::size_t kFrameHeaderSize = 4;
// Far above any request the front accepts (--max-body is at most 1 GiB).
constexpr std::uint32_t kMaxFrameSize = 0x7fffffffu;

std::string EncodeFrame(const Json::Value& message);
// The payload length a frame header announces.
std::uint32_t FrameLength(const unsigned char header[kFrameHeaderSize]);
// The message in a frame's payload; nullopt when it is not one JSON object.
std::optional<Json::Value> ParseMessage(const char* data, std::size_t size);

// Blocking, for the worker and for the supervisor's wait on a new worker:
// nullopt on end of file, an error or a malformed frame.
std::optional<Json::Value> ReadMessage(int fd);
bool WriteMessage(int fd, const Json::Value& message);

Json::Value HelloMessage(const std::vector<RowName>& rows);
Json::Value HelloFailure(const std::string& reason);
// The rows of a hello, or the worker's reason for failing in `failure`.
std::optional<std::vector<RowName>> ParseHello(const Json::Value& hello, std::string& failure);

Json::Value CallMessage(const HandlerCall& call);
std::optional<HandlerCall> ParseCall(const Json::Value& message);

struct WorkerAnswer {
    ApiReply reply;
    std::string ids;  // "ids-ok" or "ids-restored"
};
Json::Value AnswerMessage(const WorkerAnswer& answer);
std::optional<WorkerAnswer> ParseAnswer(const Json::Value& message);

}  // namespace farlink::host
