// Runs farlink-host as a child process and talks HTTP to it.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Json {
// Readable values in test failure messages.
inline void PrintTo(const Value& value, std::ostream* out) { *out << value.toStyledString(); }
}  // namespace Json

namespace farlink::host::test {

class HostProcess {
public:
    // Starts farlink-host with `args`; with `asNobody` the child gives up
    // root before exec.
    explicit HostProcess(std::vector<std::string> args, bool asNobody = false);
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Waits for the ready line; false if the process ended or said nothing.
    bool WaitListening();
    const std::string& StdoutText() const { return stdout_; }
    std::string StderrText() const;
    const std::string& BaseUrl() const { return baseUrl_; }
    pid_t Pid() const { return pid_; }

    // Sends `signal` (if any) and reaps the process; its exit status, or
    // 128 + signal when killed.
    int Finish(int signal = 0);

private:
    pid_t pid_ = -1;
    int stdoutFd_ = -1;
    std::string stdout_;
    std::string stderrPath_;
    std::string baseUrl_;
};

struct HttpResult {
    long status = 0;  // 0: no answer
    std::string body;
    std::string setCookie;
    Json::Value json;  // null unless the body was JSON
};

HttpResult Fetch(const std::string& method, const std::string& url,
                 const std::string& contentType = "", const std::string& body = "",
                 const std::string& cookie = "");

// "a=1&b=x%20y" from name/value pairs.
std::string Query(const std::vector<std::pair<std::string, std::string>>& params);

// The access log's lines.
std::vector<std::string> ReadLines(const std::string& path);

// A fresh path under /tmp that the service user can write too.
std::string TempPath(const std::string& stem);

}  // namespace farlink::host::test
