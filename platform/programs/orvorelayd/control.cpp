#include "control.h"

#include <fcntl.h>
#include <orvo/paths.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "daemon_process.h"
#include "host_info.h"

namespace orvorelayd {
namespace {

namespace relay = ORVO::Relay::internal;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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
    // our output up to its end must not wait for the daemon).
    bool PrepareDetached() {
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
               posix_spawn_file_actions_addclosefrom_np(&actions_, 3) == 0;
    }

    pid_t Spawn(const std::string& program, const char* flag) {
        std::string arg0 = program, arg1 = flag;
        char* argv[] = {arg0.data(), arg1.data(), nullptr};
        pid_t pid = 0;
        return posix_spawn(&pid, program.c_str(), &actions_, &attr_, argv, environ) == 0 ? pid : 0;
    }

private:
    posix_spawnattr_t attr_;
    posix_spawn_file_actions_t actions_;
};

std::string OwnExecutable() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
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

// Starts the background daemon and waits until it has announced itself.
bool StartDaemon() {
    const std::string self = OwnExecutable();
    SpawnSettings settings;
    if (self.empty() || !settings.PrepareDetached()) return false;
    const pid_t child = settings.Spawn(self, kRunDaemonFlag);
    if (child == 0) return false;
    bool exited = false;
    const bool announced = WaitFor(kStartWait, [&] {
        if (relay::ReadDaemonPidFile() == child && relay::IsDaemonProcess(child)) return true;
        exited = waitpid(child, nullptr, WNOHANG) == child;
        return exited;
    });
    if (announced && exited) {
        // It found another daemon holding the instance lock: that one counts.
        return WaitFor(kStartWait, [] { return relay::RunningDaemonPid() != 0; });
    }
    if (!announced) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    return announced;
}

bool StopDaemon(pid_t pid) {
    const auto gone = [pid] { return !relay::IsDaemonProcess(pid); };
    if (kill(pid, SIGTERM) == 0 && WaitFor(kStopWait, gone)) return true;
    kill(pid, SIGKILL);
    return WaitFor(kKillWait, gone);
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
