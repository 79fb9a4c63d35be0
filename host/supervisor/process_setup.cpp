#include "process_setup.h"

#include <farlink/file_io.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "startup_error.h"
#include "tls.h"

namespace farlink::host {

using Clock = std::chrono::steady_clock;

std::string ErrnoText() { return std::strerror(errno); }

PidFile::PidFile(std::string path) : path_(std::move(path)) {
    if (path_.empty()) return;
    std::ofstream file(path_, std::ios::trunc);
    if (!(file << getpid() << '\n') || !file.flush()) {
        throw StartupError("cannot write pid file " + path_);
    }
}

PidFile::~PidFile() {
    if (!path_.empty()) unlink(path_.c_str());
}

UniqueFd SignalFd() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        throw StartupError("sigprocmask: " + ErrnoText());
    }
    UniqueFd fd(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!fd) throw StartupError("signalfd: " + ErrnoText());
    return fd;
}

bool WaitReadable(int fd, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd ready{fd, POLLIN, 0};
        const int result = poll(&ready, 1, static_cast<int>(left.count()));
        if (result > 0) return true;
        if (result < 0 && errno != EINTR) return false;
    }
}

void CheckTlsFiles(const Options& options) {
    if (options.tlsCertificate.empty()) return;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw StartupError("pipe: " + ErrnoText());
    UniqueFd reader(ends[0]), writer(ends[1]);
    const pid_t child = fork();
    if (child < 0) throw StartupError("fork: " + ErrnoText());
    if (child == 0) {
        reader.Reset();
        try {
            LoadTlsContext(options.tlsCertificate, options.tlsKey);
        } catch (const StartupError& error) {
            (void)WriteAll(writer.Get(), error.what(), std::strlen(error.what()));
            _exit(EXIT_FAILURE);
        }
        _exit(EXIT_SUCCESS);
    }
    writer.Reset();
    std::string reason;
    char chunk[256];
    for (ssize_t got; (got = read(reader.Get(), chunk, sizeof chunk)) != 0;) {
        if (got > 0)
            reason.append(chunk, static_cast<std::size_t>(got));
        else if (errno != EINTR)
            break;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS) {
        throw StartupError(reason.empty() ? "cannot check the TLS key" : reason);
    }
}

void CloseInheritedDescriptors(std::optional<int> kept) {
    constexpr unsigned kFirst = 3;
    if (kept && *kept >= static_cast<int>(kFirst)) {
        const auto keptFd = static_cast<unsigned>(*kept);
        if (keptFd > kFirst) close_range(kFirst, keptFd - 1, 0);
        close_range(keptFd + 1, ~0u, 0);
    } else {
        close_range(kFirst, ~0u, 0);
    }
}

// Raises the soft descriptor limit to the hard one and fits the connection
// cap under it, leaving the front room for its own descriptors (the
// listener, the log, the workers' channels, the event loop's). The module's
// files and programs live in the workers, which have tables of their own.
Options WithConnectionCap(Options options) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) throw StartupError("getrlimit: " + ErrnoText());
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw StartupError("setrlimit: " + ErrnoText());
    constexpr rlim_t kDefaultCap = 4096;
    const rlim_t reserve = 64 + options.workers;
    if (limit.rlim_cur <= reserve) throw StartupError("the descriptor limit is too low");
    const rlim_t fits = limit.rlim_cur - reserve;
    const rlim_t wanted =
        options.maxConnections ? options.maxConnections : std::min(kDefaultCap, fits);
    options.maxConnections = static_cast<std::size_t>(std::min(wanted, fits));
    return options;
}

}  // namespace farlink::host
