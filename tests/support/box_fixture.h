// BoxTest: the GoogleTest fixture for test programs that run inside the
// emulated box (`world/farlink-box -- <test program>`). It talks to the
// box's web API host, reads the box's system log and drives the emulated
// platform's state files.
//
// SetUp puts the box back to its initial state before every test: the relay
// daemon stopped, the relay configuration directory, /etc/orvoinfo.conf,
// /etc/resolv.conf and the account as the box started, no emulation
// controls, the control server reset, the platform's request logs empty, and
// a fresh mark in the system log.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "test_files.h"

namespace farlink_test {

// One message of the box's system log, as farlink-syslogd wrote it.
struct SyslogLine {
    int priority = -1;    // facility * 8 + severity, e.g. 11 for user.err
    std::string ident;    // the program's tag, without "[pid]"
    std::string source;   // "utils" for "utils:42 text"; empty if absent
    int line = -1;        // 42 for "utils:42 text"; -1 if absent
    std::string message;  // text after "source:line ", else the whole text
    std::string raw;      // the line as written, priority prefix included
};

class BoxTest : public ::testing::Test {
protected:
    using Milliseconds = std::chrono::milliseconds;

    void SetUp() override;

    // Calls one API method through the host (logged in once per program) and
    // returns the host's whole answer ({"success":..., "data"|"error":...}).
    // Afterwards it expects the host's effective ids to be the service
    // user's again, and its real and saved ids root.
    Json::Value Call(const std::string& api, int version, const std::string& method,
                     const Json::Value& params = Json::Value(Json::objectValue));

    // The system log: a position in it (SetUp takes one, syslogMark_) and
    // the lines since SetUp's mark.
    static std::uintmax_t SyslogMark();
    std::vector<SyslogLine> SyslogSinceSetUp() const;
    // The first line since SetUp logged by `source` ("utils:..") with exactly
    // `message`, waiting up to `limit` for it (messages from other processes
    // arrive asynchronously).
    std::optional<SyslogLine> WaitForLogged(const std::string& source, const std::string& message,
                                            Milliseconds limit = Milliseconds(5000)) const;

    static Json::Value ReadJson(const std::string& path);
    // The relay daemon's emulation controls (see docs/relay-library.md).
    static void WriteDaemonEmulation(const Json::Value& controls);
    static bool DaemonRunning();
    static std::optional<pid_t> DaemonPid();

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

// While it lives, this process's effective ids are the box's service user's
// while its real and saved ids stay root: the credentials the host runs the
// module with. Leaving it restores root.
class ScopedServiceUser {
public:
    ScopedServiceUser();
    ~ScopedServiceUser();
    ScopedServiceUser(const ScopedServiceUser&) = delete;
    ScopedServiceUser& operator=(const ScopedServiceUser&) = delete;

    uid_t Uid() const { return uid_; }
    gid_t Gid() const { return gid_; }

private:
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

// Where the box keeps its run directory; empty outside a box.
std::string BoxRunDir();

}  // namespace farlink_test
