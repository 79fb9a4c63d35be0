// Messages between the supervisor and the front over a SOCK_SEQPACKET
// socket pair: fixed-size records, one per packet. A new worker's end of
// its channel travels with kWorkerAdded as an SCM_RIGHTS descriptor.
#pragma once

#include <farlink/unique_fd.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace farlink::host {

enum class ControlKind : std::uint32_t {
    kFrontReady = 1,     // front -> supervisor: ids dropped, serving
    kWorkerAdded,        // supervisor -> front: `worker` (pid) is ready; fd attached
    kWorkerExited,       // supervisor -> front: `worker` ended with wait status `status`
    kKillWorker,         // front -> supervisor: `worker` overran its time; kill it
    kAccessLogReopened,  // supervisor -> front: write the access log to the fd attached
    kAuditLogReopened,   // supervisor -> front: write the audit log to the fd attached
    kWantWorkers,        // front -> supervisor: keep `wanted` workers running
};

struct ControlMessage {
    ControlKind kind = ControlKind::kFrontReady;
    std::uint32_t worker = 0;  // the worker's id
    std::int32_t pid = 0;
    std::int32_t status = 0;
    std::uint32_t wanted = 0;
};

// Both false/nullopt on failure; `passFd`, if not -1, goes along.
bool SendControl(int socket, const ControlMessage& message, int passFd = -1);
// A descriptor that came along is stored in `passed`.
std::optional<ControlMessage> ReceiveControl(int socket, UniqueFd& passed);

// "SIGSEGV" for a signal-ended wait status, "exit=N" otherwise.
std::string DescribeEnd(int waitStatus);

}  // namespace farlink::host
