#include "box_fixture.h"

#include <curl/curl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <orvo/paths.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace farlink_test {

namespace fs = std::filesystem;

namespace {

constexpr const char kEmulationConf[] = "/usr/orvo/var/lib/orvorelayd/emulation.conf";
constexpr const char kResolvConf[] = "/etc/resolv.conf";
constexpr const char kNotInBox[] =
    "BoxTest runs only inside the emulated box: start the program as "
    "world/farlink-box -- <test program> (FARLINK_BOX_RUN_DIR is not set)";

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string InitialCopy(const std::string& name) { return BoxRunDir() + "/initial/" + name; }

std::string Trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::optional<Json::Value> ParseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::istringstream stream(text);
    Json::Value value;
    std::string errors;
    if (!Json::parseFromStream(builder, stream, &value, &errors)) return std::nullopt;
    return value;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// Truncates and writes the same inode, so that a bind-mounted file stays bound.
void RewriteInPlace(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    EXPECT_TRUE(file.flush()) << "cannot write " << path;
}

// --- HTTP -------------------------------------------------------------------

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct HttpAnswer {
    bool reached = false;
    long status = 0;
    std::string body;
    std::string error;
};

size_t AppendBody(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

std::string UrlEscape(const std::string& text) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_escape(text.c_str(), static_cast<int>(text.size())), curl_free);
    return escaped ? escaped.get() : "";
}

// A GET, or a POST when `body` is given.
HttpAnswer Http(const std::string& url, const std::optional<std::string>& body = std::nullopt,
                const std::string& cookie = "") {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    HttpAnswer answer;
    std::unique_ptr<CURL, CurlFree> curl(initialised ? curl_easy_init() : nullptr);
    if (!curl) {
        answer.error = "no curl handle";
        return answer;
    }
    std::unique_ptr<curl_slist, CurlListFree> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, AppendBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
    if (!cookie.empty()) curl_easy_setopt(curl.get(), CURLOPT_COOKIE, cookie.c_str());
    if (body) {
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body->c_str());
    }
    const CURLcode result = curl_easy_perform(curl.get());
    if (result != CURLE_OK) {
        answer.error = curl_easy_strerror(result);
        return answer;
    }
    answer.reached = true;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

std::optional<Json::Value> JsonAnswer(const HttpAnswer& answer, const std::string& what) {
    if (!answer.reached) {
        ADD_FAILURE() << what << ": " << answer.error;
        return std::nullopt;
    }
    auto value = ParseJson(answer.body);
    if (!value) ADD_FAILURE() << what << ": answer is not JSON: " << answer.body;
    return value;
}

// The host's session, opened on first use and kept for the whole program.
const std::string& SessionCookie() {
    static const std::string cookie = [] {
        const std::string password = Trimmed(ReadWholeFile(BoxRunDir() + "/admin-password"));
        const auto answer =
            JsonAnswer(Http(Env("FARLINK_BOX_URL") +
                            "/webapi/auth.cgi?account=admin&passwd=" + UrlEscape(password)),
                       "login");
        if (!answer || !(*answer)["data"]["sid"].isString()) {
            ADD_FAILURE() << "the host refused the login";
            return std::string();
        }
        return "id=" + (*answer)["data"]["sid"].asString();
    }();
    return cookie;
}

void PostControl(const std::string& path, const Json::Value& body) {
    const auto answer = Http(Env("FARLINK_BOX_CONTROL_URL") + path, CompactJson(body));
    EXPECT_TRUE(answer.reached && answer.status == 200)
        << "control server " << path << ": " << answer.error << answer.status << " " << answer.body;
}

// --- ids --------------------------------------------------------------------

struct Ids {
    long real = -1, effective = -1, saved = -1;
};

// "Uid:" or "Gid:" of /proc/<pid>/status.
std::optional<Ids> ProcessIds(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(key, 0) != 0) continue;
        Ids ids;
        std::istringstream fields(line.substr(key.size()));
        if (fields >> ids.real >> ids.effective >> ids.saved) return ids;
    }
    return std::nullopt;
}

// --- state reset ---------------------------------------------------------------

void RestoreRelayConfDir() {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(ORVO::Paths::kRelaydConfDir, error))
        fs::remove_all(entry.path(), error);
    for (const auto& entry : fs::directory_iterator(InitialCopy("orvorelayd"), error)) {
        fs::copy(entry.path(), fs::path(ORVO::Paths::kRelaydConfDir) / entry.path().filename(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
        EXPECT_FALSE(error) << "restoring " << entry.path() << ": " << error.message();
    }
}

void TruncateIfPresent(const char* path) {
    if (truncate(path, 0) != 0 && errno != ENOENT) ADD_FAILURE() << "cannot empty " << path;
}

}  // namespace

std::string BoxRunDir() { return Env("FARLINK_BOX_RUN_DIR"); }

SyslogLine ParseSyslogLine(const std::string& raw) {
    // <PRI>Mmm dd hh:mm:ss ident[pid]: source:line message
    static const std::regex header(R"(^<(\d+)>(?:[A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d )?)");
    static const std::regex located(R"(^([A-Za-z0-9_.-]+):(\d+) ([\s\S]*)$)");
    SyslogLine line;
    line.raw = raw;
    std::smatch match;
    std::string text = raw;
    if (std::regex_search(raw, match, header)) {
        line.priority = std::stoi(match[1]);
        text = match.suffix();
    }
    const auto colon = text.find(": ");
    if (colon != std::string::npos) {
        line.ident = text.substr(0, text.find('[') < colon ? text.find('[') : colon);
        text = text.substr(colon + 2);
    }
    line.message = text;
    if (std::regex_match(text, match, located)) {
        line.source = match[1];
        line.line = std::stoi(match[2]);
        line.message = match[3];
    }
    return line;
}

void BoxTest::SetUp() {
    ASSERT_FALSE(BoxRunDir().empty()) << kNotInBox;
    std::error_code ignored;
    // First: the controls a test left would shape the stop.
    fs::remove(kEmulationConf, ignored);
    EXPECT_EQ(RunProgram({ORVO::Paths::kRelaydProgram, "--farlink", "off"}), 0)
        << "cannot stop the relay daemon";
    RestoreRelayConfDir();
    WriteFile(ORVO::Paths::kHostInfo, ReadFile(InitialCopy("orvoinfo.conf")));
    WriteFile(kResolvConf, ReadFile(InitialCopy("resolv.conf")));
    WriteFile(ORVO::Paths::kKivoAccount, ReadFile(InitialCopy("account.conf")));
    for (const char* log : {ORVO::Paths::kKivoQueryLog, ORVO::Paths::kSystemdReloadLog,
                            ORVO::Paths::kCloudServiceLog})
        TruncateIfPresent(log);
    ResetControlServer();
    syslogMark_ = SyslogMark();
}

// --- the web API host -----------------------------------------------------------

Json::Value BoxTest::Call(const std::string& api, int version, const std::string& method,
                          const Json::Value& params) {
    std::string url = Env("FARLINK_BOX_URL") + "/webapi/entry.cgi?api=" + UrlEscape(api) +
                      "&version=" + std::to_string(version) + "&method=" + UrlEscape(method);
    for (const auto& name : params.getMemberNames())
        url += "&" + UrlEscape(name) + "=" + UrlEscape(CompactJson(params[name]));
    const auto answer = JsonAnswer(Http(url, std::nullopt, SessionCookie()),
                                   api + " v" + std::to_string(version) + " " + method);
    ExpectHostIdsDropped();
    return answer.value_or(Json::Value());
}

pid_t BoxTest::HostPid() const {
    return static_cast<pid_t>(std::atol(ReadFile(BoxRunDir() + "/host.pid").c_str()));
}

void BoxTest::ExpectHostIdsDropped() const {
    const passwd* user = getpwnam(Env("FARLINK_BOX_SERVICE_USER").c_str());
    ASSERT_NE(user, nullptr) << "no service user in the box";
    const auto uids = ProcessIds(HostPid(), "Uid:");
    const auto gids = ProcessIds(HostPid(), "Gid:");
    ASSERT_TRUE(uids && gids) << "cannot read the host's ids (pid " << HostPid() << ")";
    EXPECT_EQ(uids->effective, static_cast<long>(user->pw_uid)) << "host kept another euid";
    EXPECT_EQ(gids->effective, static_cast<long>(user->pw_gid)) << "host kept another egid";
    EXPECT_EQ(uids->real, 0);
    EXPECT_EQ(uids->saved, 0);
    EXPECT_EQ(gids->real, 0);
    EXPECT_EQ(gids->saved, 0);
}

// --- the system log ---------------------------------------------------------------

std::uintmax_t BoxTest::SyslogMark() const {
    std::error_code error;
    const auto size = fs::file_size(BoxRunDir() + "/syslog.log", error);
    return error ? 0 : size;
}

std::vector<SyslogLine> BoxTest::SyslogSince(std::uintmax_t mark) const {
    std::ifstream log(BoxRunDir() + "/syslog.log");
    log.seekg(static_cast<std::streamoff>(mark));
    std::vector<SyslogLine> lines;
    std::string raw;
    while (std::getline(log, raw)) lines.push_back(ParseSyslogLine(raw));
    return lines;
}

namespace {

template <typename Match>
std::optional<SyslogLine> WaitForLine(std::chrono::milliseconds limit, Match match,
                                      const std::function<std::vector<SyslogLine>()>& lines) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        for (const auto& line : lines())
            if (match(line)) return line;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace

std::optional<SyslogLine> BoxTest::WaitForSyslog(const std::string& text,
                                                 Milliseconds limit) const {
    return WaitForLine(
        limit, [&](const SyslogLine& line) { return line.message.find(text) != std::string::npos; },
        [this] { return SyslogSinceSetUp(); });
}

std::optional<SyslogLine> BoxTest::WaitForLogged(const std::string& source,
                                                 const std::string& message,
                                                 Milliseconds limit) const {
    return WaitForLine(
        limit,
        [&](const SyslogLine& line) { return line.source == source && line.message == message; },
        [this] { return SyslogSinceSetUp(); });
}

// --- the control server -------------------------------------------------------------

void BoxTest::ResetControlServer() { PostControl("/control/reset", Json::objectValue); }
void BoxTest::SetControlFault(const Json::Value& fault) { PostControl("/control/fault", fault); }
void BoxTest::SetControlSite(const Json::Value& site) { PostControl("/control/site", site); }

Json::Value BoxTest::ControlRecords() {
    return JsonAnswer(Http(Env("FARLINK_BOX_CONTROL_URL") + "/control/records"), "control records")
        .value_or(Json::Value());
}

// --- files ----------------------------------------------------------------------------

std::string BoxTest::ReadFile(const std::string& path) { return ReadWholeFile(path); }

void BoxTest::WriteFile(const std::string& path, const std::string& content) {
    RewriteInPlace(path, content);
}

Json::Value BoxTest::ReadJson(const std::string& path) {
    return ParseJson(ReadFile(path)).value_or(Json::Value());
}

void BoxTest::WriteJson(const std::string& path, const Json::Value& value) {
    WriteFile(path, value.toStyledString());
}

std::vector<std::string> BoxTest::ReadLines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(file, line)) lines.push_back(line);
    return lines;
}

std::string BoxTest::RelayConfPath(const std::string& name) {
    return std::string(ORVO::Paths::kRelaydConfDir) + "/" + name;
}

void BoxTest::WriteHostInfo(const std::string& content) {
    WriteFile(ORVO::Paths::kHostInfo, content);
}

// --- the relay daemon and the services around it ----------------------------------------

std::optional<pid_t> BoxTest::DaemonPid() {
    const std::string text = Trimmed(ReadFile(ORVO::Paths::kRelaydPidFile));
    if (text.empty()) return std::nullopt;
    return static_cast<pid_t>(std::atol(text.c_str()));
}

bool BoxTest::DaemonRunning() {
    const auto pid = DaemonPid();
    if (!pid || *pid <= 0 || kill(*pid, 0) != 0) return false;
    const std::string status = ReadFile("/proc/" + std::to_string(*pid) + "/status");
    return status.find("State:\tZ") == std::string::npos;
}

std::string BoxTest::DaemonStatus() { return ReadFile(ORVO::Paths::kRelaydStatus); }

void BoxTest::WriteDaemonEmulation(const Json::Value& controls) {
    WriteJson(kEmulationConf, controls);
}

void BoxTest::WriteAccount(const Json::Value& state) {
    WriteJson(ORVO::Paths::kKivoAccount, state);
}

std::vector<std::string> BoxTest::KivoQueries() { return ReadLines(ORVO::Paths::kKivoQueryLog); }

std::vector<std::string> BoxTest::SystemdReloads() {
    return ReadLines(ORVO::Paths::kSystemdReloadLog);
}

std::vector<std::string> BoxTest::CloudServiceActions() {
    return ReadLines(ORVO::Paths::kCloudServiceLog);
}

int BoxTest::RunProgram(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    if (args.size() < 2 || posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// --- DNS ------------------------------------------------------------------------------------

ScopedDnsOutage::ScopedDnsOutage() : saved_(ReadWholeFile(kResolvConf)) {
    RewriteInPlace(kResolvConf, "nameserver " + Env("FARLINK_BOX_SILENT_NAMESERVER") +
                                    "\noptions timeout:1 attempts:1\n");
}

ScopedDnsOutage::~ScopedDnsOutage() { RewriteInPlace(kResolvConf, saved_); }

// --- credentials and programs -----------------------------------------------------------------

ScopedUnrunnableProgram::ScopedUnrunnableProgram(std::string path) : path_(std::move(path)) {
    struct stat info {};
    EXPECT_EQ(stat(path_.c_str(), &info), 0) << path_;
    mode_ = info.st_mode & 07777;
    EXPECT_EQ(chmod(path_.c_str(), 0644), 0) << path_;
}

ScopedUnrunnableProgram::~ScopedUnrunnableProgram() {
    EXPECT_EQ(chmod(path_.c_str(), static_cast<mode_t>(mode_)), 0) << path_;
}

ScopedServiceUser::ScopedServiceUser() {
    const passwd* user = getpwnam(Env("FARLINK_BOX_SERVICE_USER").c_str());
    if (user == nullptr) {
        ADD_FAILURE() << "no service user in the box";
        return;
    }
    uid_ = user->pw_uid;
    gid_ = user->pw_gid;
    // Group first: once the user id is gone the group can no longer change.
    EXPECT_EQ(setresgid(-1, gid_, -1), 0);
    EXPECT_EQ(setresuid(-1, uid_, -1), 0);
}

ScopedServiceUser::~ScopedServiceUser() {
    EXPECT_EQ(setresuid(-1, 0, -1), 0);
    EXPECT_EQ(setresgid(-1, 0, -1), 0);
}

}  // namespace farlink_test
