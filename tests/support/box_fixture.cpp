#include "box_fixture.h"

#include <curl/curl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <orvo/paths.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

namespace farlink_test {

namespace fs = std::filesystem;

namespace {

constexpr const char kEmulationConf[] = "/usr/orvo/var/lib/orvorelayd/emulation.conf";
constexpr const char kNotInBox[] =
    "BoxTest runs only inside the emulated box: start the program as "
    "world/farlink-box -- <test program> (FARLINK_BOX_RUN_DIR is not set)";

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string InitialCopy(const std::string& name) { return BoxRunDir() + "/initial/" + name; }

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

size_t AppendBody(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

std::string UrlEscape(const std::string& text) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_escape(text.c_str(), static_cast<int>(text.size())), curl_free);
    return escaped ? escaped.get() : "";
}

// The JSON answer to a GET, or to a POST of `body` when one is given; a
// failure and a null value when there is none.
Json::Value Fetch(const std::string& url, const std::optional<std::string>& body = std::nullopt,
                  const std::string& cookie = "") {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(
        initialised ? curl_easy_init() : nullptr, curl_easy_cleanup);
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"), curl_slist_free_all);
    std::string answer;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, AppendBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
    if (!cookie.empty()) curl_easy_setopt(curl.get(), CURLOPT_COOKIE, cookie.c_str());
    if (body) {
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body->c_str());
    }
    const CURLcode result = curl ? curl_easy_perform(curl.get()) : CURLE_FAILED_INIT;
    std::istringstream text(answer);
    Json::Value value;
    if (result != CURLE_OK ||
        !Json::parseFromStream(Json::CharReaderBuilder(), text, &value, nullptr))
        ADD_FAILURE() << url << ": " << curl_easy_strerror(result) << " " << answer;
    return value;
}

// The host's session, opened on first use and kept for the whole program.
const std::string& SessionCookie() {
    static const std::string cookie = [] {
        std::string password = ReadFile(BoxRunDir() + "/admin-password");
        password.erase(password.find_last_not_of("\n ") + 1);
        const Json::Value answer =
            Fetch(Env("FARLINK_BOX_URL") +
                  "/webapi/auth.cgi?account=admin&passwd=" + UrlEscape(password));
        EXPECT_TRUE(answer["data"]["sid"].isString()) << "the host refused the login";
        return "id=" + answer["data"]["sid"].asString();
    }();
    return cookie;
}

// Real, effective and saved ids of a "Uid:" or "Gid:" line of /proc/<pid>/status.
std::vector<long> ProcessIds(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::vector<long> ids(3, -1);
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key, 0) != 0) continue;
        std::istringstream fields(line.substr(key.size()));
        fields >> ids[0] >> ids[1] >> ids[2];
    }
    return ids;
}

SyslogLine ParseSyslogLine(const std::string& raw) {
    // <PRI>Mmm dd hh:mm:ss ident[pid]: source:line message
    static const std::regex pattern(
        R"(^<(\d+)>(?:[A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d )?(?:([^:\[ ]+)(?:\[\d+\])?: )?)"
        R"((?:([A-Za-z0-9_.-]+):(\d+) )?([\s\S]*)$)");
    SyslogLine line;
    line.raw = raw;
    line.message = raw;
    std::smatch match;
    if (!std::regex_match(raw, match, pattern)) return line;
    line.priority = std::stoi(match[1]);
    line.ident = match[2];
    line.source = match[3];
    line.line = match[4].matched ? std::stoi(match[4]) : -1;
    line.message = match[5];
    return line;
}

}  // namespace

std::string BoxRunDir() { return Env("FARLINK_BOX_RUN_DIR"); }

void BoxTest::SetUp() {
    ASSERT_FALSE(BoxRunDir().empty()) << kNotInBox;
    std::error_code error;
    fs::remove(kEmulationConf, error);  // first: its controls shape the stop
    const std::string stop = std::string(ORVO::Paths::kRelaydProgram) + " --farlink off";
    EXPECT_EQ(std::system(stop.c_str()), 0) << "cannot stop the relay daemon";
    for (const auto& entry : fs::directory_iterator(ORVO::Paths::kRelaydConfDir, error))
        fs::remove_all(entry.path(), error);
    for (const auto& entry : fs::directory_iterator(InitialCopy("orvorelayd"), error)) {
        fs::copy(entry.path(), fs::path(ORVO::Paths::kRelaydConfDir) / entry.path().filename(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
        EXPECT_FALSE(error) << "restoring " << entry.path() << ": " << error.message();
    }
    for (const auto& [file, initial] : {std::pair{ORVO::Paths::kHostInfo, "orvoinfo.conf"},
                                        {"/etc/resolv.conf", "resolv.conf"},
                                        {ORVO::Paths::kKivoAccount, "account.conf"}})
        EXPECT_TRUE(WriteFile(file, ReadFile(InitialCopy(initial)))) << file;
    for (const char* log : {ORVO::Paths::kKivoQueryLog, ORVO::Paths::kSystemdReloadLog,
                            ORVO::Paths::kCloudServiceLog}) {
        if (truncate(log, 0) != 0 && errno != ENOENT) ADD_FAILURE() << "cannot empty " << log;
    }
    EXPECT_EQ(Fetch(Env("FARLINK_BOX_CONTROL_URL") + "/control/reset", "{}")["ok"], true);
    syslogMark_ = SyslogMark();
}

Json::Value BoxTest::Call(const std::string& api, int version, const std::string& method,
                          const Json::Value& params) {
    std::string url = Env("FARLINK_BOX_URL") + "/webapi/entry.cgi?api=" + UrlEscape(api) +
                      "&version=" + std::to_string(version) + "&method=" + UrlEscape(method);
    for (const auto& name : params.getMemberNames())
        url += "&" + UrlEscape(name) + "=" + UrlEscape(CompactJson(params[name]));
    const Json::Value answer = Fetch(url, std::nullopt, SessionCookie());

    const passwd* user = getpwnam(Env("FARLINK_BOX_SERVICE_USER").c_str());
    const pid_t host = static_cast<pid_t>(std::atol(ReadFile(BoxRunDir() + "/host.pid").c_str()));
    if (user == nullptr) ADD_FAILURE() << "no service user in the box";
    const long uid = user ? user->pw_uid : -1, gid = user ? user->pw_gid : -1;
    EXPECT_EQ(ProcessIds(host, "Uid:"), (std::vector<long>{0, uid, 0})) << "host's user ids";
    EXPECT_EQ(ProcessIds(host, "Gid:"), (std::vector<long>{0, gid, 0})) << "host's group ids";
    return answer;
}

std::uintmax_t BoxTest::SyslogMark() {
    std::error_code error;
    const auto size = fs::file_size(BoxRunDir() + "/syslog.log", error);
    return error ? 0 : size;
}

std::vector<SyslogLine> BoxTest::SyslogSinceSetUp() const {
    std::ifstream log(BoxRunDir() + "/syslog.log");
    log.seekg(static_cast<std::streamoff>(syslogMark_));
    std::vector<SyslogLine> lines;
    for (std::string raw; std::getline(log, raw);) lines.push_back(ParseSyslogLine(raw));
    return lines;
}

std::optional<SyslogLine> BoxTest::WaitForLogged(const std::string& source,
                                                 const std::string& message,
                                                 Milliseconds limit) const {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        for (const auto& line : SyslogSinceSetUp())
            if (line.source == source && line.message == message) return line;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(Milliseconds(20));
    }
}

Json::Value BoxTest::ReadJson(const std::string& path) {
    std::ifstream file(path);
    Json::Value value;
    Json::parseFromStream(Json::CharReaderBuilder(), file, &value, nullptr);
    return value;
}

void BoxTest::WriteDaemonEmulation(const Json::Value& controls) {
    EXPECT_TRUE(WriteFile(kEmulationConf, controls.toStyledString()));
}

std::optional<pid_t> BoxTest::DaemonPid() {
    const std::string text = ReadFile(ORVO::Paths::kRelaydPidFile);
    if (text.find_first_not_of("\n ") == std::string::npos) return std::nullopt;
    return static_cast<pid_t>(std::atol(text.c_str()));
}

bool BoxTest::DaemonRunning() {
    const auto pid = DaemonPid();
    if (!pid || *pid <= 0 || kill(*pid, 0) != 0) return false;
    const std::string status = ReadFile("/proc/" + std::to_string(*pid) + "/status");
    return status.find("State:\tZ") == std::string::npos;
}

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
