#include "box_fixture.h"

#include <json/writer.h>
#include <orvo/paths.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "test_files.h"
#include "test_http.h"
#include "test_processes.h"

namespace farlink_test {

namespace fs = std::filesystem;

namespace {

constexpr const char kEmulationConf[] = "/usr/orvo/var/lib/orvorelayd/emulation.conf";
constexpr const char kResolvConf[] = "/etc/resolv.conf";
constexpr int kUserErr = 1 * 8 + 3;

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// The answer's JSON; a test failure and null when there is none.
Json::Value JsonAnswer(const HttpResult& answer, const std::string& what) {
    if (answer.status == 0) ADD_FAILURE() << what << ": " << answer.error;
    if (answer.status != 0 && answer.json.isNull())
        ADD_FAILURE() << what << ": answer is not JSON: " << answer.body;
    return answer.json;
}

// The host's session, opened on first use and kept for the whole program:
// the cookie and the anti-forgery header that go with every call.
const HttpRequest& SessionTemplate() {
    static const HttpRequest session = [] {
        std::string password = ReadFile(BoxRunDir() + "/admin-password");
        password.erase(password.find_last_not_of("\n ") + 1);
        const Json::Value answer =
            JsonAnswer(Fetch("POST", Env("FARLINK_BOX_URL") + "/webapi/auth.cgi",
                             "application/x-www-form-urlencoded",
                             "account=admin&passwd=" + UrlEscape(password)),
                       "login");
        if (!answer["data"]["sid"].isString()) ADD_FAILURE() << "the host refused the login";
        HttpRequest request;
        request.cookie = "id=" + answer["data"]["sid"].asString();
        request.headers = {"X-Farlink-Token: " + answer["data"]["token"].asString()};
        return request;
    }();
    return session;
}

void PostControl(const std::string& path, const Json::Value& body) {
    const auto answer =
        Fetch("POST", Env("FARLINK_BOX_CONTROL_URL") + path, "application/json", CompactJson(body));
    EXPECT_EQ(answer.status, 200) << "control server " << path << ": " << answer.error
                                  << answer.body;
}

// The workers keep root only as their real and saved ids; the front has
// none left. A worker that ran a call with a password ends after it, and
// its replacement loads the module as root first: it is given a moment.
void ExpectHostIdsDropped() {
    const passwd* user = getpwnam(Env("FARLINK_BOX_SERVICE_USER").c_str());
    ASSERT_NE(user, nullptr) << "no service user in the box";
    const pid_t host = HostPid();
    // Real, effective, saved and file-system ids.
    const std::string uid = std::to_string(user->pw_uid), gid = std::to_string(user->pw_gid);
    std::vector<pid_t> workers;
    WaitUntil([&] { return !(workers = ChildrenNamed(host, "farlink-worker")).empty(); });
    EXPECT_FALSE(workers.empty()) << "no workers under host " << host;
    for (pid_t worker : workers) {
        std::string uids, gids;
        WaitUntil([&] {
            uids = ProcStatus(worker, "Uid:");
            gids = ProcStatus(worker, "Gid:");
            return uids.rfind("0 0 ", 0) != 0 && gids.rfind("0 0 ", 0) != 0;
        });
        if (uids.empty() || gids.empty()) continue;  // it ended meanwhile
        EXPECT_EQ(uids, "0 " + uid + " 0 " + uid) << "worker " << worker;
        EXPECT_EQ(gids, "0 " + gid + " 0 " + gid) << "worker " << worker;
    }
    for (pid_t front : ChildrenNamed(host, "farlink-front"))
        EXPECT_EQ(ProcStatus(front, "Uid:"), uid + " " + uid + " " + uid + " " + uid)
            << "front " << front;
}

// <PRI>Mmm dd hh:mm:ss ident[pid]: source:line message
SyslogLine ParseSyslogLine(const std::string& raw) {
    static const std::regex form(
        R"(^<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?[^:]*: (?:([\w.-]+):(\d+) )?([\s\S]*)$)");
    std::smatch match;
    if (!std::regex_match(raw, match, form)) return {-1, "", -1, raw, raw};
    return {std::stoi(match[1]), match[2], match[3].matched ? std::stoi(match[3]) : -1, match[4],
            raw};
}

}  // namespace

void BoxTest::SetUp() {
    ASSERT_FALSE(BoxRunDir().empty())
        << "BoxTest runs only inside the emulated box: start the program as "
           "box/farlink-box -- <test program> (FARLINK_BOX_RUN_DIR is not set)";
    std::error_code ignored;
    // First: the controls a test left would shape the stop.
    fs::remove(kEmulationConf, ignored);
    EXPECT_TRUE(RestoreBox()) << "cannot put the box back as it started";
    for (const char* log : {ORVO::Paths::kKivoQueryLog, ORVO::Paths::kSystemdReloadLog,
                            ORVO::Paths::kCloudServiceLog})
        EXPECT_TRUE(truncate(log, 0) == 0 || errno == ENOENT) << "cannot empty " << log;
    ResetControlServer();
    syslogMark_ = SyslogMark();
}

// --- the web API host -----------------------------------------------------------

pid_t HostPid() {
    return static_cast<pid_t>(std::atol(ReadFile(BoxRunDir() + "/host.pid").c_str()));
}

Json::Value BoxTest::Call(const std::string& api, int version, const std::string& method,
                          const Json::Value& params) {
    const Json::Value answer = CallUnchecked(api, version, method, params);
    ExpectHostIdsDropped();
    return answer;
}

Json::Value BoxTest::CallUnchecked(const std::string& api, int version, const std::string& method,
                                   const Json::Value& params) {
    std::string url = Env("FARLINK_BOX_URL") + "/webapi/entry.cgi?api=" + UrlEscape(api) +
                      "&version=" + std::to_string(version) + "&method=" + UrlEscape(method);
    for (const auto& name : params.getMemberNames())
        url += "&" + UrlEscape(name) + "=" + UrlEscape(CompactJson(params[name]));
    HttpRequest request = SessionTemplate();
    request.url = url;
    return JsonAnswer(Fetch(request), api + " v" + std::to_string(version) + " " + method);
}

Json::Value Answer(int code, const Json::Value& data) {
    Json::Value answer;
    answer["success"] = code == 0;
    if (code != 0) answer["error"]["code"] = code;
    if (code == 0 && !data.isNull()) answer["data"] = data;
    return answer;
}

// --- the system log ---------------------------------------------------------------

std::uintmax_t BoxTest::SyslogMark() const {
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
    std::optional<SyslogLine> found;
    WaitUntil(
        [&] {
            for (const auto& line : SyslogSinceSetUp()) {
                if (line.source == source && line.message == message) found = line;
                if (found) return true;
            }
            return false;
        },
        limit);
    return found;
}

bool BoxTest::LoggedError(const std::string& source, const std::string& message,
                          Milliseconds limit) const {
    const auto line = WaitForLogged(source, message, limit);
    return line && line->priority == kUserErr && line->line > 0;
}

// --- the control server -------------------------------------------------------------

void BoxTest::ResetControlServer() { PostControl("/control/reset", Json::objectValue); }
void BoxTest::SetControlFault(const Json::Value& fault) { PostControl("/control/fault", fault); }
void BoxTest::SetControlSite(const Json::Value& site) { PostControl("/control/site", site); }

Json::Value BoxTest::ControlRecords() {
    return JsonAnswer(Fetch("GET", Env("FARLINK_BOX_CONTROL_URL") + "/control/records"),
                      "control records");
}

// --- files and state ------------------------------------------------------------------

void BoxTest::WriteFile(const std::string& path, const std::string& content) {
    EXPECT_TRUE(farlink_test::WriteFile(path, content)) << "cannot write " << path;
}

std::optional<pid_t> BoxTest::DaemonPid() {
    const std::string text = ReadFile(ORVO::Paths::kRelaydPidFile);
    if (text.empty()) return std::nullopt;
    return static_cast<pid_t>(std::atol(text.c_str()));
}

bool BoxTest::DaemonRunning() {
    const auto pid = DaemonPid();
    if (!pid || *pid <= 0 || kill(*pid, 0) != 0) return false;
    return ReadFile("/proc/" + std::to_string(*pid) + "/status").find("State:\tZ") ==
           std::string::npos;
}

// --- scoped changes -------------------------------------------------------------------

void BoxTest::SilenceResolver() {
    WriteFile(kResolvConf, "nameserver " + Env("FARLINK_BOX_SILENT_NAMESERVER") +
                               "\noptions timeout:1 attempts:1\n");
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

}  // namespace farlink_test
