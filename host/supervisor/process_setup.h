// What the supervisor sets up around its processes: the pid file, the
// signals it takes through a descriptor, its waits, and the descriptor limit.
#pragma once

#include <farlink/unique_fd.h>

#include <chrono>
#include <optional>
#include <string>

#include "options.h"

namespace farlink::host {

std::string ErrnoText();

// Written with root rights and removed with them; the supervisor keeps them.
class PidFile {
public:
    explicit PidFile(std::string path);
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

private:
    std::string path_;
};

// SIGTERM, SIGINT, SIGHUP and SIGCHLD, blocked and read from the returned descriptor.
UniqueFd SignalFd();

// False once `deadline` passes with nothing to read on `fd`.
bool WaitReadable(int fd, std::chrono::steady_clock::time_point deadline);

// Closes every descriptor above stderr that the host was started with,
// except `kept` (the listening socket given by option): a launcher's pipe
// left open must not reach the front or a worker.
void CloseInheritedDescriptors(std::optional<int> kept);

// Whether the TLS certificate and key (when given) can be used together;
// throws StartupError with OpenSSL's reason. They are loaded in a child that
// ends at once, so that the key is never in this process's memory (nor in
// the workers it forks): only the front loads it for good.
void CheckTlsFiles(const Options& options);

// Raises the soft descriptor limit to the hard one and fits the connection
// cap under it.
Options WithConnectionCap(Options options);

}  // namespace farlink::host
