#include "control.h"

#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <orvo/paths.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "daemon_process.h"
#include "host_info.h"
#include "relay_daemon.h"

namespace orvorelayd {
namespace {

namespace relay = ORVO::Relay::internal;
using Clock = std::chrono::steady_clock;
using farlink::UniqueFd;
using std::chrono::milliseconds;

constexpr const char kDaemonProgramName[] = "orvorelayd-daemon";
constexpr int kChildReadyFd = 3;

constexpr milliseconds kStartWait(2000);
constexpr milliseconds kStopWait(3000);
constexpr milliseconds kKillWait(1000);
constexpr milliseconds kPollStep(10);

constexpr const char kFailoverKey[] = "farlink_enable_failover";

class SpawnSettings {
public:
    SpawnSettings() {
        posix_spawnattr_init(&attr_);
        posix_spawn_file_actions_init(&actions_);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attr_);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    // A detached daemon: its own session, default signal handling, stdio on
    // /dev/null, and none of the caller's other descriptors (a caller reading
    // our output up to its end must not wait for the daemon) but `readyFd`,
    // which it gets as descriptor 3.
    bool PrepareDetached(int readyFd) {
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (const int signal : {SIGHUP, SIGUSR1, SIGTERM, SIGINT, SIGPIPE}) {
            sigaddset(&defaults, signal);
        }
        return posix_spawnattr_setflags(&attr_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                                    POSIX_SPAWN_SETSIGDEF) == 0 &&
               posix_spawnattr_setsigmask(&attr_, &none) == 0 &&
               posix_spawnattr_setsigdefault(&attr_, &defaults) == 0 &&
               posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDWR, 0) == 0 &&
               posix_spawn_file_actions_adddup2(&actions_, 0, 1) == 0 &&
               posix_spawn_file_actions_adddup2(&actions_, 0, 2) == 0 &&
               posix_spawn_file_actions_adddup2(&actions_, readyFd, kChildReadyFd) == 0 &&
               posix_spawn_file_actions_addclosefrom_np(&actions_, kChildReadyFd + 1) == 0;
    }

    pid_t Spawn(const std::string& program) {
        std::string arg0 = program, arg1 = kReadyFdFlag, arg2 = std::to_string(kChildReadyFd);
        char* argv[] = {arg0.data(), arg1.data(), arg2.data(), nullptr};
        pid_t pid = 0;
        return posix_spawn(&pid, program.c_str(), &actions_, &attr_, argv, environ) == 0 ? pid : 0;
    }

private:
    posix_spawnattr_t attr_;
    posix_spawn_file_actions_t actions_;
};

// The daemon's program lies next to this one.
std::string DaemonProgram() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return std::string();
    const std::string self(path, static_cast<size_t>(length));
    return self.substr(0, self.rfind('/') + 1) + kDaemonProgramName;
}

template <typename Condition>
bool WaitFor(milliseconds limit, Condition done) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPollStep);
    }
    return true;
}

// Waits up to `limit` for `fd` to become readable; false on time-out.
bool WaitReadable(int fd, milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        pollfd waiting{fd, POLLIN, 0};
        const int ready =
            poll(&waiting, 1, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

// Starts the background daemon and waits until it has announced itself: one
// byte on its end of a socket pair once its pid file is written, or the end
// of the socket when it exits first.
bool StartDaemon() {
    const std::string program = DaemonProgram();
    int ends[2];
    if (program.empty() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    UniqueFd ours(ends[0]), theirs(ends[1]);
    SpawnSettings settings;
    if (!settings.PrepareDetached(theirs.Get())) return false;
    const pid_t child = settings.Spawn(program);
    theirs.Reset();
    if (child == 0) return false;
    if (!WaitReadable(ours.Get(), kStartWait)) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return false;
    }
    char byte = 0;
    if (recv(ours.Get(), &byte, 1, 0) == 1) return true;
    // It ended without announcing itself, most likely because another daemon
    // holds the instance lock: that one counts.
    waitpid(child, nullptr, 0);
    return WaitFor(kStartWait, [] { return relay::RunningDaemonPid() != 0; });
}

// A descriptor that becomes readable when `pid` exits (it is not our
// child, so it cannot be waited for); invalid where the kernel has none.
UniqueFd OpenProcessFd(pid_t pid) {
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

bool StopDaemon(pid_t pid) {
    const auto gone = [pid] { return !relay::IsDaemonProcess(pid); };
    const UniqueFd process = OpenProcessFd(pid);
    const auto waitGone = [&](milliseconds limit) {
        if (process.Valid()) return WaitReadable(process.Get(), limit) || gone();
        return WaitFor(limit, gone);
    };
    if (kill(pid, SIGTERM) == 0 && waitGone(kStopWait)) return true;
    kill(pid, SIGKILL);
    return waitGone(kKillWait);
}

}  // namespace

int SwitchOn(const EmulationControls& controls) {
    if (relay::RunningDaemonPid() == 0 && !StartDaemon()) {
        std::fprintf(stderr, "orvorelayd: the daemon did not start\n");
        return 1;
    }
    return controls.startExit;
}

int SwitchOff(const EmulationControls& controls) {
    const pid_t pid = relay::RunningDaemonPid();
    const bool stopped = pid == 0 || StopDaemon(pid);
    unlink(ORVO::Paths::kRelaydPidFile);
    unlink(ORVO::Paths::kRelaydStatus);
    if (!stopped) {
        std::fprintf(stderr, "orvorelayd: process %d did not stop\n", static_cast<int>(pid));
        return 1;
    }
    return controls.stopExit;
}

int PrintStatus(const EmulationControls& controls) {
    const std::string text =
        controls.statusOutput.value_or(relay::RunningDaemonPid() != 0 ? "on" : "off");
    std::fwrite(text.data(), 1, text.size(), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

int CheckFailover(const EmulationControls& controls) {
    if (controls.checkFailoverExit != 0) return controls.checkFailoverExit;
    const char* value = controls.checkFailoverValue == "true" ? "true" : "false";
    if (!SetHostInfoKey(ORVO::Paths::kHostInfo, kFailoverKey, value)) {
        std::fprintf(stderr, "orvorelayd: cannot write %s\n", ORVO::Paths::kHostInfo);
        return 1;
    }
    return 0;
}

}  // namespace orvorelayd
