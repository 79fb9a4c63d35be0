// Runs farlink-host as a child process and talks HTTP to it.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "test_files.h"
#include "test_http.h"
#include "test_json.h"

namespace farlink::host::test {

// A fresh path under /tmp that the service user can write too.
inline std::string TempPath(const std::string& stem) {
    static std::atomic<int> counter{0};
    return "/tmp/farlink-host-test-" + std::to_string(getpid()) + "-" + stem + "-" +
           std::to_string(counter++);
}

class HostProcess {
public:
    // Starts farlink-host with `args`; with `asNobody` the child gives up
    // root before exec; `openFiles`, if not 0, is its descriptor limit.
    explicit HostProcess(std::vector<std::string> args, bool asNobody = false,
                         rlim_t openFiles = 0) {
        const rlimit files{openFiles, openFiles};
        args.insert(args.begin(), FARLINK_HOST_PATH);
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            // The forked child: no allocation from here on.
            const int stderrFd = open(stderrPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (stderrFd >= 0 && dup2(pipeFds[1], STDOUT_FILENO) >= 0 &&
                (openFiles == 0 || setrlimit(RLIMIT_NOFILE, &files) == 0) &&
                dup2(stderrFd, STDERR_FILENO) >= 0 &&
                (!asNobody ||
                 (setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0)))
                execv(argv[0], argv.data());
            _exit(127);
        }
        close(pipeFds[1]);
        stdoutFd_ = pipeFds[0];
    }
    ~HostProcess() {
        Finish(SIGKILL);
        if (stdoutFd_ >= 0) close(stdoutFd_);
        unlink(stderrPath_.c_str());
    }
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Waits for the ready line; false if the process ended or said nothing
    // for `timeoutMs`.
    bool WaitListening(int timeoutMs = 10000) {
        const std::string prefix = "farlink-host: listening on ";
        while (stdout_.find('\n') == std::string::npos) {
            pollfd ready{stdoutFd_, POLLIN, 0};
            char buffer[256];
            const ssize_t got =
                poll(&ready, 1, timeoutMs) == 1 ? read(stdoutFd_, buffer, sizeof buffer) : 0;
            if (got <= 0) return false;
            stdout_.append(buffer, static_cast<size_t>(got));
        }
        if (stdout_.rfind(prefix, 0) != 0) return false;
        baseUrl_ = stdout_.substr(prefix.size(), stdout_.find('\n') - prefix.size());
        return true;
    }
    const std::string& StdoutText() const { return stdout_; }
    std::string StderrText() const { return farlink_test::ReadFile(stderrPath_); }
    const std::string& BaseUrl() const { return baseUrl_; }
    pid_t Pid() const { return pid_; }

    // Sends `signal` (if any) and reaps the process; its exit status, or
    // 128 + signal when killed.
    int Finish(int signal = 0) {
        if (pid_ <= 0) return -1;
        if (signal != 0) kill(pid_, signal);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int stdoutFd_ = -1;
    std::string stdout_;
    const std::string stderrPath_ = TempPath("host-stderr");
    std::string baseUrl_;
};

inline std::vector<std::string> WithModule(const std::string& module,
                                           std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--module", module});
    return more;
}

// With a listening address and the password "pw" as well.
inline std::vector<std::string> Serving(const std::string& module,
                                        std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--listen", "127.0.0.1:0", "--password", "pw"});
    return WithModule(module, more);
}

struct Session {
    std::string sid;
    std::string token;
};

// A login to the host at `baseUrl`, as a form.
inline farlink_test::HttpRequest LoginRequest(const std::string& baseUrl,
                                              const std::string& password) {
    farlink_test::HttpRequest login;
    login.method = "POST";
    login.url = baseUrl + "/webapi/auth.cgi";
    login.contentType = "application/x-www-form-urlencoded";
    login.body = "account=admin&passwd=" + farlink_test::UrlEscape(password);
    return login;
}

inline farlink_test::HttpResult Login(const std::string& baseUrl, const std::string& password) {
    return farlink_test::Fetch(LoginRequest(baseUrl, password));
}

inline Session SessionOf(const farlink_test::HttpResult& login) {
    return {login.json["data"]["sid"].asString(), login.json["data"]["token"].asString()};
}

// A fresh session of `host` (password "pw").
inline Session LoggedIn(const HostProcess& host) { return SessionOf(Login(host.BaseUrl(), "pw")); }

// A request in `session` as a browser page makes it: the cookie and the
// anti-forgery header.
inline farlink_test::HttpRequest InSession(const Session& session, const std::string& method,
                                           const std::string& url,
                                           const std::string& contentType = "",
                                           const std::string& body = "") {
    farlink_test::HttpRequest request;
    request.method = method;
    request.url = url;
    request.contentType = contentType;
    request.body = body;
    request.cookie = "id=" + session.sid;
    request.headers = {"X-Farlink-Token: " + session.token};
    return request;
}

// Logs in to `host` and calls Test.Host `method` (with its query, if any).
inline farlink_test::HttpResult LoggedInCall(const HostProcess& host, const std::string& method) {
    return farlink_test::Fetch(
        InSession(LoggedIn(host), "GET",
                  host.BaseUrl() + "/webapi/entry.cgi?api=Test.Host&version=1&method=" + method));
}

inline int PortOf(const std::string& baseUrl) {
    return std::stoi(baseUrl.substr(baseUrl.rfind(':') + 1));
}

// A connection to 127.0.0.1:port from `source` (a loopback address), not
// waited for; -1 when no descriptor was had.
inline int ConnectFrom(const std::string& source, int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in from{}, to{};
    from.sin_family = to.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &from.sin_addr);
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    to.sin_port = htons(static_cast<uint16_t>(port));
    if (fd < 0) return -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
        (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS)) {
        close(fd);
        return -1;
    }
    return fd;
}

// How often `needle` occurs in the readable memory of process `pid` (as
// /proc shows it to root); regions above 1 GiB (a sanitizer's shadow) are
// left out.
inline int CountInMemory(pid_t pid, const std::string& needle) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    const int mem = open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    constexpr std::size_t kChunk = 1 << 20;
    int count = 0;
    std::string chunk(kChunk + needle.size(), '\0');
    for (std::string line; mem >= 0 && std::getline(maps, line);) {
        unsigned long start = 0, end = 0;
        char perms[5] = "";
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, perms) != 3 || perms[0] != 'r' ||
            end - start > (1ul << 30))
            continue;
        // Each read overlaps the last by the needle's length less one.
        for (unsigned long at = start; at < end; at += kChunk) {
            const std::size_t want = std::min<unsigned long>(kChunk + needle.size() - 1, end - at);
            const ssize_t got = pread(mem, chunk.data(), want, static_cast<off_t>(at));
            if (got <= 0) break;
            const std::string_view text(chunk.data(), static_cast<std::size_t>(got));
            for (auto found = text.find(needle); found != std::string_view::npos && found < kChunk;
                 found = text.find(needle, found + 1)) {
                ++count;
            }
        }
    }
    if (mem >= 0) close(mem);
    return count;
}

// Whether the host has closed the connection: end of file or a reset.
inline bool ClosedByPeer(int fd) {
    char byte;
    const ssize_t got = recv(fd, &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINPROGRESS);
}

using farlink_test::Fetch;
using farlink_test::HttpRequest;
using farlink_test::HttpResult;
using farlink_test::ParseJson;
using farlink_test::ReadFile;
using farlink_test::ReadLines;
using farlink_test::WaitUntil;

}  // namespace farlink::host::test
