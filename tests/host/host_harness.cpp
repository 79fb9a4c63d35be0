#include "host_harness.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <json/reader.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace farlink::host::test {

namespace {

constexpr int kNobody = 65534;
constexpr int kReadyTimeoutMs = 10000;

struct CurlDeleter {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t AppendBody(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

size_t KeepSetCookie(char* data, size_t size, size_t count, void* target) {
    std::string line(data, size * count);
    const std::string prefix = "set-cookie:";
    std::string lower = line.substr(0, prefix.size());
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == prefix) {
        std::string value = line.substr(prefix.size());
        value.erase(0, value.find_first_not_of(' '));
        value.erase(value.find_last_not_of("\r\n") + 1);
        *static_cast<std::string*>(target) = value;
    }
    return size * count;
}

// Runs in the forked child: no allocation from here on.
[[noreturn]] void ExecHost(char* const* argv, int stdoutFd, const std::string& stderrPath,
                           bool asNobody) {
    int stderrFd = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (stderrFd < 0 || dup2(stdoutFd, STDOUT_FILENO) < 0 || dup2(stderrFd, STDERR_FILENO) < 0) {
        _exit(127);
    }
    if (asNobody &&
        (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0)) {
        _exit(127);
    }
    execv(argv[0], argv);
    _exit(127);
}

}  // namespace

HostProcess::HostProcess(std::vector<std::string> args, bool asNobody)
    : stderrPath_(TempPath("host-stderr")) {
    args.insert(args.begin(), FARLINK_HOST_PATH);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) ExecHost(argv.data(), pipeFds[1], stderrPath_, asNobody);
    close(pipeFds[1]);
    stdoutFd_ = pipeFds[0];
}

HostProcess::~HostProcess() {
    if (pid_ > 0) Finish(SIGKILL);
    if (stdoutFd_ >= 0) close(stdoutFd_);
    unlink(stderrPath_.c_str());
}

bool HostProcess::WaitListening() {
    const std::string prefix = "farlink-host: listening on ";
    while (stdout_.find('\n') == std::string::npos) {
        pollfd ready{stdoutFd_, POLLIN, 0};
        if (poll(&ready, 1, kReadyTimeoutMs) != 1) return false;
        char buffer[256];
        ssize_t got = read(stdoutFd_, buffer, sizeof buffer);
        if (got <= 0) return false;
        stdout_.append(buffer, static_cast<size_t>(got));
    }
    std::string line = stdout_.substr(0, stdout_.find('\n'));
    if (line.rfind(prefix, 0) != 0) return false;
    baseUrl_ = line.substr(prefix.size());
    return true;
}

std::string HostProcess::StderrText() const {
    std::ifstream file(stderrPath_);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

int HostProcess::Finish(int signal) {
    if (pid_ <= 0) return -1;
    if (signal != 0) kill(pid_, signal);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

HttpResult Fetch(const std::string& method, const std::string& url, const std::string& contentType,
                 const std::string& body, const std::string& cookie) {
    HttpResult result;
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    std::unique_ptr<curl_slist, SlistDeleter> headers;
    if (!contentType.empty()) {
        headers.reset(curl_slist_append(nullptr, ("Content-Type: " + contentType).c_str()));
    }
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    if (method == "POST") {
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(body.size()));
    }
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    if (!cookie.empty()) curl_easy_setopt(curl.get(), CURLOPT_COOKIE, cookie.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, AppendBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, KeepSetCookie);
    curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &result.setCookie);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    if (curl_easy_perform(curl.get()) != CURLE_OK) return result;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &result.status);

    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(result.body.data(), result.body.data() + result.body.size(), &result.json,
                       &errors)) {
        result.json = Json::Value();
    }
    return result;
}

std::string Query(const std::vector<std::pair<std::string, std::string>>& params) {
    std::string query;
    for (const auto& [name, value] : params) {
        char* escaped = curl_easy_escape(nullptr, value.c_str(), static_cast<int>(value.size()));
        query += (query.empty() ? "" : "&") + name + "=" + escaped;
        curl_free(escaped);
    }
    return query;
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::string TempPath(const std::string& stem) {
    static std::atomic<int> counter{0};
    return "/tmp/farlink-host-test-" + std::to_string(getpid()) + "-" + stem + "-" +
           std::to_string(counter++);
}

}  // namespace farlink::host::test
