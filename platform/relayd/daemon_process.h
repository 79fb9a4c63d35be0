// How the library and the daemon program find the running relay daemon and
// share its state: a pid file naming the process and a JSON status file.
#pragma once

#include <sys/types.h>

namespace ORVO {
namespace Relay {
namespace internal {

// Process name (as the kernel reports it) of the relay daemon.
constexpr const char kDaemonProcessName[] = "orvorelayd";

// Members of the status file.
constexpr const char kStatusPid[] = "pid";
constexpr const char kStatusState[] = "status";
constexpr const char kStatusError[] = "error";
constexpr const char kStatusServerId[] = "server_id";
constexpr const char kStatusReloads[] = "reloads";
constexpr const char kStatusAliasUpdates[] = "alias_updates";

// True when `pid` is a live (not zombie) relay daemon process.
bool IsDaemonProcess(pid_t pid);

// The pid the pid file names; 0 when there is no usable pid file.
pid_t ReadDaemonPidFile();

// The pid of the running daemon; 0 when none runs (a stale pid file, or one
// naming an unrelated process, counts as none).
pid_t RunningDaemonPid();

// Sends `signal` to the running daemon; false when none runs or it failed.
bool SignalRunningDaemon(int signal);

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
