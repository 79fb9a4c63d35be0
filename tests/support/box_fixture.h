// BoxTest: the GoogleTest fixture for test programs that run inside the
// emulated box (`box/farlink-box -- <test program>`). It talks to the
// box's web API host, reads the box's system log and drives the emulated
// platform's state files and the control server.
//
// SetUp puts the box back to its initial state before every test (RestoreBox
// of box_state.h), with no emulation controls, the control server reset, the
// platform's request logs empty, and a fresh mark in the system log.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <orvo/paths.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "box_state.h"
#include "test_json.h"

namespace farlink_test {

// One message of the box's system log, as farlink-syslogd wrote it.
struct SyslogLine {
    int priority = -1;    // facility * 8 + severity, e.g. 11 for user.err
    std::string source;   // "utils" for "utils:42 text"; empty if absent
    int line = -1;        // 42 for "utils:42 text"; -1 if absent
    std::string message;  // text after "source:line ", else the whole text
    std::string raw;      // the line as written, priority prefix included
};

// The host's answer: {"success": true, "data": data} (no data when null)
// or {"success": false, "error": {"code": code}}.
Json::Value Answer(int code, const Json::Value& data = Json::Value());

// The pid the box's host was started as (its supervisor).
pid_t HostPid();

class BoxTest : public ::testing::Test {
protected:
    using Milliseconds = std::chrono::milliseconds;

    void SetUp() override;

    // --- the web API host ----------------------------------------------------

    // Calls one API method through the host (logged in once per program; each
    // parameter is sent as JSON text) and returns the host's whole answer.
    // Afterwards it expects the host's effective ids to be the service
    // user's again, and its real and saved ids root.
    Json::Value Call(const std::string& api, int version, const std::string& method,
                     const Json::Value& params = Json::Value(Json::objectValue));
    // The same call without the ids check, for many threads at once.
    static Json::Value CallUnchecked(const std::string& api, int version, const std::string& method,
                                     const Json::Value& params = Json::Value(Json::objectValue));

    // Runs `body` with the host's credentials (ScopedServiceUser) and
    // expects it to leave them as it found them.
    template <typename Body>
    static auto AsHost(Body body) {
        ScopedServiceUser user;
        auto result = body();
        EXPECT_EQ(geteuid(), user.Uid()) << "a section left the user raised";
        EXPECT_EQ(getegid(), user.Gid()) << "a section left the group raised";
        return result;
    }

    // --- the system log --------------------------------------------------------

    // Position in the log now; SetUp takes one (syslogMark_).
    std::uintmax_t SyslogMark() const;
    std::vector<SyslogLine> SyslogSinceSetUp() const;
    // The first line since the mark logged by `source` ("utils:..") with
    // exactly `message`, waiting up to `limit` for it (messages from other
    // processes arrive asynchronously).
    std::optional<SyslogLine> WaitForLogged(const std::string& source, const std::string& message,
                                            Milliseconds limit = Milliseconds(5000)) const;
    // The same line, logged at user.err with its source line.
    bool LoggedError(const std::string& source, const std::string& message,
                     Milliseconds limit = Milliseconds(5000)) const;

    // --- the control server ------------------------------------------------------

    void ResetControlServer();
    void SetControlFault(const Json::Value& fault);
    void SetControlSite(const Json::Value& site);
    Json::Value ControlRecords();

    // --- files (and ReadFile, ReadLines, ReadJson of test_json.h) -----------------

    // Rewrites the file in place (same inode: bind-mounted files stay bound).
    static void WriteFile(const std::string& path, const std::string& content);
    static void WriteJson(const std::string& path, const Json::Value& value) {
        WriteFile(path, value.toStyledString());
    }

    // --- the relay daemon and the services around it -----------------------------

    static bool DaemonRunning();
    static std::optional<pid_t> DaemonPid();
    static void WriteDaemonEmulation(const Json::Value& controls) {
        WriteJson("/usr/orvo/var/lib/orvorelayd/emulation.conf", controls);
    }
    static void WriteAccount(const Json::Value& state) {
        WriteJson(ORVO::Paths::kKivoAccount, state);
    }
    static auto KivoQueries() { return ReadLines(ORVO::Paths::kKivoQueryLog); }
    static auto SystemdReloads() { return ReadLines(ORVO::Paths::kSystemdReloadLog); }
    static auto CloudServiceActions() { return ReadLines(ORVO::Paths::kCloudServiceLog); }
    // Until the next SetUp, the box's resolver asks a name server that takes
    // queries and never answers.
    static void SilenceResolver();

    std::uintmax_t syslogMark_ = 0;
};

// While it lives, `path` exists but cannot be executed (its mode is 0644),
// so that running it fails the way a missing or broken install does.
class ScopedUnrunnableProgram {
public:
    explicit ScopedUnrunnableProgram(std::string path);
    ~ScopedUnrunnableProgram();
    ScopedUnrunnableProgram(const ScopedUnrunnableProgram&) = delete;
    ScopedUnrunnableProgram& operator=(const ScopedUnrunnableProgram&) = delete;

private:
    std::string path_;
    unsigned mode_ = 0;
};

}  // namespace farlink_test
