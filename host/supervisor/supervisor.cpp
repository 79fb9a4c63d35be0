#include "supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <stdexcept>
#include <vector>

#include "channel.h"
#include "control.h"
#include "listen_socket.h"
#include "log_files.h"
#include "privileges.h"
#include "process_setup.h"
#include "processes.h"
#include "service_manager.h"
#include "startup_error.h"

namespace farlink::host {

namespace {

using Clock = std::chrono::steady_clock;

// A worker loads the module and greets within this, or it is taken for hung.
constexpr std::chrono::seconds kGreetingTimeout{60};
// The front's own grace for requests in flight is 10 s; past this it is killed.
constexpr std::chrono::seconds kStopTimeout{13};
// Workers end by themselves once the front has closed their channels.
constexpr std::chrono::seconds kWorkerLinger{2};
// A worker that ends sooner than this after its start is replaced only after
// the same pause, so that a module that crashes at once cannot make us spin.
constexpr std::chrono::seconds kRestartPause{1};
// A front that dies sooner than this after its start is replaced after a
// pause that doubles with each such death, from the first to the longest;
// one that lived longer is replaced at once.
constexpr std::chrono::seconds kYoungFront{1};
constexpr std::chrono::milliseconds kFirstFrontPause{250};
constexpr std::chrono::milliseconds kLongestFrontPause{8000};

class Supervisor {
public:
    explicit Supervisor(const Options& options)
        : options_(options),
          accessLog_(options.accessLogPath.empty() ? UniqueFd()
                                                   : OpenAccessLog(options.accessLogPath)),
          auditLog_(options.auditLogPath.empty()
                        ? UniqueFd()
                        : OpenLogForAppend(options.auditLogPath, "audit log")),
          ids_(LookupServiceUser(options.user)),
          listener_(options.listenFd ? AdoptListenSocket(*options.listenFd)
                                     : BindListenSocket(*options.listenAddress)),
          pidFile_(options.pidFile),
          signals_(SignalFd()) {}

    int Run() {
        StartWorkers();
        StartFront();
        for (;;) {
            while (frontPid_ > 0) Step();
            if (stopping_) break;
            RestartFront();
        }
        return Finish();
    }

private:
    struct Worker {
        pid_t pid = 0;
        Clock::time_point started;
    };

    // --- workers ------------------------------------------------------------

    // Forks a worker; the returned link is the front's end of its channel.
    WorkerLink ForkWorker() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            throw StartupError("socketpair: " + ErrnoText());
        }
        UniqueFd ours(ends[0]), theirs(ends[1]);
        const pid_t pid = fork();
        if (pid < 0) throw StartupError("fork: " + ErrnoText());
        if (pid == 0) {
            // Only the channel goes along: not the listening socket, the
            // access log or another worker's channel.
            if (dup3(theirs.Get(), 3, O_CLOEXEC) < 0) _exit(EXIT_FAILURE);
            close_range(4, ~0u, 0);
            RunWorker(options_.modulePath, ids_, 3);
        }
        const std::uint32_t id = nextWorkerId_++;
        workers_[id] = {pid, Clock::now()};
        return {id, pid, std::move(ours)};
    }

    // Waits for the worker's greeting: the table's rows, or why it failed.
    std::optional<std::vector<RowName>> Greeting(const WorkerLink& link, std::string& failure) {
        failure = "a worker did not start within " + std::to_string(kGreetingTimeout.count()) + "s";
        if (!WaitReadable(link.channel.Get(), Clock::now() + kGreetingTimeout)) return std::nullopt;
        std::optional<Json::Value> hello = ReadMessage(link.channel.Get());
        failure = "a worker ended before it was ready";
        if (!hello) return std::nullopt;
        return ParseHello(*hello, failure);
    }

    void StartWorkers() {
        for (unsigned i = 0; i < wanted_; ++i) links_.push_back(ForkWorker());
        for (const WorkerLink& link : links_) {
            std::string failure;
            std::optional<std::vector<RowName>> rows = Greeting(link, failure);
            if (!rows) {
                KillAll();
                throw StartupError(failure);
            }
            rows_ = std::move(*rows);
        }
    }

    // Up to what the front wants, also in place of workers that died.
    void ReplaceWorkers() {
        restartDue_.reset();
        while (!stopping_ && workers_.size() < wanted_ && !restartDue_) AddWorker();
    }

    void AddWorker() {
        std::optional<WorkerLink> link;
        std::string failure;
        try {
            link = ForkWorker();
            if (!Greeting(*link, failure)) link.reset();
        } catch (const StartupError& error) {
            failure = error.what();
        }
        if (!link) {
            std::fprintf(stderr, "farlink-host: cannot start a worker: %s; trying again\n",
                         failure.c_str());
            restartDue_ = Clock::now() + kRestartPause;
            return;
        }
        ControlMessage added;
        added.kind = ControlKind::kWorkerAdded;
        added.worker = link->id;
        added.pid = link->pid;
        (void)SendControl(control_.Get(), added, link->channel.Get());  // a lost front is reaped
    }

    // --- the front ----------------------------------------------------------

    void StartFront() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            throw StartupError("socketpair: " + ErrnoText());
        }
        control_.Reset(ends[0]);
        UniqueFd frontEnd(ends[1]);
        frontPid_ = fork();
        if (frontPid_ < 0) throw StartupError("fork: " + ErrnoText());
        if (frontPid_ == 0) {
            signals_.Reset();
            control_.Reset();
            FrontSetup setup;
            setup.options = &options_;
            setup.ids = ids_;
            setup.listener = std::move(listener_.fd);
            setup.accessLog = std::move(accessLog_);
            setup.auditLog = std::move(auditLog_);
            setup.listenAddress = listener_.address;
            setup.rows = rows_;
            setup.workers = std::move(links_);
            setup.control = std::move(frontEnd);
            RunFront(std::move(setup));
        }
        // The front holds these now. The listening socket and the logs stay
        // here too, for a front that has to be replaced.
        links_.clear();
        frontEnd.Reset();
        frontStarted_ = Clock::now();

        UniqueFd none;
        if (!WaitReadable(control_.Get(), Clock::now() + kGreetingTimeout)) {
            KillAll();
            throw StartupError("the front did not start");
        }
        std::optional<ControlMessage> ready = ReceiveControl(control_.Get(), none);
        if (!ready || ready->kind != ControlKind::kFrontReady) {
            KillAll();
            throw StartupError("the front did not start");
        }
        if (announced_) return;
        announced_ = true;
        std::printf("farlink-host: listening on %s://%s\n",
                    options_.tlsCertificate.empty() ? "http" : "https", listener_.address.c_str());
        std::fflush(stdout);
        serviceManager_.Ready();
    }

    // A front that ended without being told to: its connections and sessions
    // are gone, but the listening socket is still here and its backlog holds
    // new clients while a fresh front with fresh workers takes over.
    void RestartFront() {
        const bool young = Clock::now() - frontStarted_ < kYoungFront;
        frontPause_ = young
                          ? std::clamp(frontPause_ * 2, std::chrono::milliseconds(kFirstFrontPause),
                                       std::chrono::milliseconds(kLongestFrontPause))
                          : std::chrono::milliseconds(0);
        std::fprintf(stderr, "farlink-host: the front ended (%s); starting a new one in %lld ms\n",
                     DescribeEnd(frontStatus_).c_str(),
                     static_cast<long long>(frontPause_.count()));
        frontStatus_ = 0;
        control_.Reset();
        KillAll();
        restartDue_.reset();
        const Clock::time_point due = Clock::now() + frontPause_;
        while (!stopping_ && WaitReadable(signals_.Get(), due)) TakeSignal();
        if (stopping_) return;
        try {
            wanted_ = options_.minWorkers;  // the new front asks for more as it needs them
            StartWorkers();
            StartFront();
        } catch (const StartupError& error) {
            std::fprintf(stderr, "farlink-host: cannot start a new front: %s\n", error.what());
            KillAll();
            links_.clear();
            frontStarted_ = Clock::now();
        }
    }

    // --- the loop -------------------------------------------------------------

    void Step() {
        pollfd ready[2] = {{signals_.Get(), POLLIN, 0}, {control_.Get(), POLLIN, 0}};
        std::optional<Clock::time_point> wake = restartDue_;
        if (stopping_ && (!wake || stopDeadline_ < *wake)) wake = stopDeadline_;
        int timeout = -1;
        if (wake) {
            timeout = static_cast<int>(std::max<long long>(
                0, std::chrono::duration_cast<std::chrono::milliseconds>(*wake - Clock::now())
                       .count()));
        }
        if (poll(ready, control_ ? 2 : 1, timeout) < 0 && errno != EINTR) {
            throw std::runtime_error("poll: " + ErrnoText());
        }
        // The front's wishes first: a worker it let go is not to be replaced.
        if (control_ && (ready[1].revents & (POLLIN | POLLHUP | POLLERR))) TakeControl();
        if (ready[0].revents & POLLIN) TakeSignal();
        if (stopping_ && Clock::now() >= stopDeadline_ && frontPid_ > 0) {
            std::fprintf(stderr, "farlink-host: the front did not stop; killing it\n");
            kill(frontPid_, SIGKILL);
            stopDeadline_ = Clock::now() + kStopTimeout;
        }
        if (restartDue_ && Clock::now() >= *restartDue_) ReplaceWorkers();
    }

    void TakeSignal() {
        signalfd_siginfo info{};
        if (read(signals_.Get(), &info, sizeof info) != sizeof info) return;
        if (info.ssi_signo == SIGCHLD) {
            Reap();
        } else if (info.ssi_signo == SIGHUP) {
            ReopenLogs();
        } else if (!stopping_) {
            serviceManager_.Stopping();
            stopping_ = true;
            stopDeadline_ = Clock::now() + kStopTimeout;
            if (frontPid_ > 0) kill(frontPid_, SIGTERM);
        }
    }

    // For log rotation: the supervisor opened the logs while root and opens
    // them again; the front, which cannot, switches to the new descriptors.
    void ReopenLogs() {
        ReopenLog(options_.accessLogPath, "access log", ControlKind::kAccessLogReopened,
                  accessLog_);
        ReopenLog(options_.auditLogPath, "audit log", ControlKind::kAuditLogReopened, auditLog_);
    }

    // Kept here as well, for a front that has to be replaced.
    void ReopenLog(const std::string& path, const std::string& what, ControlKind kind,
                   UniqueFd& kept) {
        if (path.empty()) return;
        try {
            kept = OpenLogForAppend(path, what);
            if (!control_) return;
            ControlMessage reopened;
            reopened.kind = kind;
            (void)SendControl(control_.Get(), reopened, kept.Get());  // a lost front is reaped
        } catch (const StartupError& error) {
            std::fprintf(stderr, "farlink-host: %s; writing on to the old file\n", error.what());
        }
    }

    void TakeControl() {
        do {
            TakeControlMessage();
        } while (control_ && ControlWaiting());
    }

    bool ControlWaiting() const {
        pollfd ready{control_.Get(), POLLIN, 0};
        return poll(&ready, 1, 0) > 0;
    }

    void TakeControlMessage() {
        UniqueFd none;
        std::optional<ControlMessage> message = ReceiveControl(control_.Get(), none);
        if (!message) {
            control_.Reset();  // the front is gone; SIGCHLD tells the rest
            return;
        }
        if (message->kind == ControlKind::kWantWorkers) {
            wanted_ = std::clamp(message->wanted, options_.minWorkers, options_.workers);
            if (!restartDue_) ReplaceWorkers();
            return;
        }
        if (message->kind != ControlKind::kKillWorker) return;
        auto found = workers_.find(message->worker);
        if (found != workers_.end()) kill(found->second.pid, SIGKILL);
    }

    void Reap() {
        int status = 0;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            if (pid == frontPid_) {
                frontPid_ = 0;
                frontStatus_ = status;
                continue;
            }
            for (auto it = workers_.begin(); it != workers_.end(); ++it) {
                if (it->second.pid != pid) continue;
                // One that ends by itself, with exit 0, is done; one that
                // fails soon after its start waits.
                const bool quick = Clock::now() - it->second.started < kRestartPause &&
                                   !(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS);
                ControlMessage exited;
                exited.kind = ControlKind::kWorkerExited;
                exited.worker = it->first;
                exited.pid = pid;
                exited.status = status;
                workers_.erase(it);
                if (control_) (void)SendControl(control_.Get(), exited);  // a lost front is reaped
                const Clock::time_point due =
                    Clock::now() + (quick ? kRestartPause : Clock::duration());
                if (!restartDue_ || due < *restartDue_) restartDue_ = due;
                break;
            }
        }
    }

    // --- the end --------------------------------------------------------------

    void KillAll() {
        if (frontPid_ > 0) kill(frontPid_, SIGKILL);
        for (const auto& [id, worker] : workers_) kill(worker.pid, SIGKILL);
        while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
        }
        workers_.clear();
        frontPid_ = 0;
    }

    int Finish() {
        const bool orderly = WIFEXITED(frontStatus_) && WEXITSTATUS(frontStatus_) == 0;
        control_.Reset();
        const Clock::time_point deadline = Clock::now() + kWorkerLinger;
        while (!workers_.empty() && WaitReadable(signals_.Get(), deadline)) TakeSignal();
        const bool abandoned = !workers_.empty();
        KillAll();
        return orderly && !abandoned ? EXIT_SUCCESS : EXIT_FAILURE;
    }

    const Options& options_;
    ServiceManager serviceManager_;  // first: takes NOTIFY_SOCKET before anything is forked
    UniqueFd accessLog_;
    UniqueFd auditLog_;
    ServiceIds ids_;
    ListenSocket listener_;
    PidFile pidFile_;
    UniqueFd signals_;
    UniqueFd control_;
    std::vector<WorkerLink> links_;  // until the front has them
    std::vector<RowName> rows_;
    std::map<std::uint32_t, Worker> workers_;
    std::uint32_t nextWorkerId_ = 1;
    // Workers kept running: the minimum, more while the front has the work.
    // The front ends the idle ones it no longer wants by closing their
    // channels.
    std::uint32_t wanted_ = options_.minWorkers;
    pid_t frontPid_ = 0;
    int frontStatus_ = 0;
    Clock::time_point frontStarted_;
    std::chrono::milliseconds frontPause_{0};
    bool announced_ = false;
    bool stopping_ = false;
    Clock::time_point stopDeadline_;
    std::optional<Clock::time_point> restartDue_;
};

}  // namespace

int Supervise(const Options& given) {
    RequireRoot();
    CloseInheritedDescriptors(given.listenFd);
    const Options options = WithConnectionCap(given);
    CheckTlsFiles(options);
    signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_NAME, "farlink-host");
    Supervisor supervisor(options);
    return supervisor.Run();
}

}  // namespace farlink::host
