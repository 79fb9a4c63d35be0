#include "relay_daemon.h"

#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <initializer_list>

#include "daemon_process.h"
#include "emulation.h"
#include "heartbeat.h"
#include "json_file.h"

namespace orvorelayd {
namespace {

namespace relay = ORVO::Relay::internal;
namespace Paths = ORVO::Paths;
using Clock = std::chrono::steady_clock;
using farlink::UniqueFd;

// Held for the daemon's lifetime so that two racing starts cannot both run.
constexpr const char kLockFile[] = "/usr/orvo/var/run/orvorelayd.lock";

UniqueFd AcquireSingleInstanceLock() {
    mkdir(Paths::kRunDir, 0755);
    UniqueFd fd(open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (fd.Valid() && flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) return UniqueFd();
    return fd;
}

// Blocks `signals` and delivers them through a descriptor the loop polls.
UniqueFd OpenSignalFd(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) sigaddset(&set, signal);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return UniqueFd();
    return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
}

bool WritePidFile() {
    const std::string text = std::to_string(getpid()) + "\n";
    return farlink::WriteFileAtomically(Paths::kRelaydPidFile, text, relay::kPublicFileMode);
}

class RelayDaemon {
public:
    RelayDaemon() : conf_(Paths::kRelaydConf) {}

    // Publishes the first state; false when the state cannot be written.
    bool Start() {
        Reload();
        return Publish();
    }

    // Re-reads the configuration and the controls, and contacts the register
    // site afresh.
    void OnReload() {
        ++reloads_;
        Reload();
        Publish();
    }

    void OnAliasRefresh() {
        ++aliasUpdates_;
        Publish();
    }

    void Heartbeat() {
        controls_ = LoadEmulationControls();
        // Forced words stand for the outcome: no request is made then.
        link_ = Forced() ? ForcedLink() : SendHeartbeat(conf_);
        Publish();
    }

    std::chrono::seconds HeartbeatInterval() const {
        return std::chrono::seconds(controls_.heartbeatSeconds);
    }

    void Stop() {
        if (relay::ReadDaemonPidFile() == getpid()) unlink(Paths::kRelaydPidFile);
        unlink(Paths::kRelaydStatus);
    }

private:
    void Reload() {
        conf_ = ORVO::Relay::RelaydConf(Paths::kRelaydConf);
        controls_ = LoadEmulationControls();
        // Forced words hold from the first published state on, so that a
        // reader never sees the plain connecting state in between.
        link_ = Forced() ? ForcedLink() : LinkState{kStatusConnecting, ""};
    }

    bool Forced() const { return controls_.forceStatus || controls_.forceError; }

    LinkState ForcedLink() const {
        return {controls_.forceStatus.value_or("connected"), controls_.forceError.value_or("")};
    }

    // Writes the status file when the state changed.
    bool Publish() {
        Json::Value state(Json::objectValue);
        state[relay::kStatusPid] = static_cast<Json::Int>(getpid());
        state[relay::kStatusState] = link_.status;
        state[relay::kStatusError] = link_.error;
        state[relay::kStatusServerId] = conf_.serverId;
        state[relay::kStatusReloads] = reloads_;
        state[relay::kStatusAliasUpdates] = aliasUpdates_;
        if (state == published_) return true;
        if (!relay::WriteJsonFile(Paths::kRelaydStatus, state)) return false;
        published_ = state;
        return true;
    }

    ORVO::Relay::RelaydConf conf_;
    EmulationControls controls_;
    LinkState link_;
    Json::UInt reloads_ = 0;
    Json::UInt aliasUpdates_ = 0;
    Json::Value published_;
};

int MillisecondsUntil(Clock::time_point when) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

int RunRelayDaemon(int readyFd) {
    UniqueFd ready(readyFd);
    const UniqueFd lock = AcquireSingleInstanceLock();
    if (!lock.Valid()) return 3;
    const UniqueFd signals = OpenSignalFd({SIGHUP, SIGUSR1, SIGTERM, SIGINT});
    if (!signals.Valid()) return 1;

    RelayDaemon daemon;
    // The status file comes first: whoever sees the pid file finds a state.
    if (!daemon.Start() || !WritePidFile()) {
        daemon.Stop();
        return 1;
    }
    // The starter waits for this byte or the end of its socket rather than
    // polling for the pid file; a starter already gone must not end us.
    if (ready.Valid()) send(ready.Get(), "1", 1, MSG_NOSIGNAL);
    ready.Reset();
    auto nextHeartbeat = Clock::now();
    for (;;) {
        if (Clock::now() >= nextHeartbeat) {
            daemon.Heartbeat();
            nextHeartbeat = Clock::now() + daemon.HeartbeatInterval();
        }
        pollfd waiting{signals.Get(), POLLIN, 0};
        if (poll(&waiting, 1, MillisecondsUntil(nextHeartbeat)) <= 0) continue;
        signalfd_siginfo info;
        if (read(signals.Get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) continue;
        switch (info.ssi_signo) {
            case SIGHUP:
                daemon.OnReload();
                nextHeartbeat = Clock::now();
                break;
            case SIGUSR1:
                daemon.OnAliasRefresh();
                break;
            default:
                daemon.Stop();
                return 0;
        }
    }
}

}  // namespace orvorelayd
