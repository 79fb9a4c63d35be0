#include <gtest/gtest.h>
#include <orvo/core.h>
#include <orvo/paths.h>
#include <orvo/systemd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "test_helpers.h"

namespace {

using platform_test::ReadFile;
using platform_test::ReadLines;
using platform_test::WaitUntil;
using platform_test::WriteFile;

const std::string kRunDir = ORVO::Paths::kRunDir;

// Gone, or a zombie waiting for the background reaper.
bool HasExited(pid_t pid) {
    std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    std::size_t nameEnd = stat.rfind(')');
    return nameEnd == std::string::npos || stat.compare(nameEnd + 2, 1, "Z") == 0;
}

class SystemdReloadTest : public platform_test::PrivateRootTest {
protected:
    std::string LastLogLine() {
        std::vector<std::string> lines = ReadLines(ORVO::Paths::kSystemdReloadLog);
        return lines.empty() ? "" : lines.back();
    }
};

// A unit's main process: writes its pid file and records every SIGHUP.
TEST_F(SystemdReloadTest, ReloadSignalsTheRunningUnit) {
    std::string hups = kRunDir + "/hups";
    const char* unit =
        "trap 'echo hup >> \"$1/hups\"' HUP; echo $$ > \"$1/testunit.pid\";"
        "while :; do sleep 0.05; done";
    ASSERT_EQ(OLIBCExecl("/bin/sh", OLIBC_EXEC_NOWAIT, "-c", unit, "sh", kRunDir.c_str(), nullptr),
              0);
    std::string pidFile = kRunDir + "/testunit.pid";
    ASSERT_TRUE(WaitUntil([&] { return !ReadFile(pidFile).empty(); }));
    pid_t pid = std::stoi(ReadFile(pidFile));

    EXPECT_TRUE(ORVOSystemdReload("testunit"));
    EXPECT_EQ(LastLogLine(), "testunit ok");
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(hups) == "hup\n"; }));

    ::kill(pid, SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return HasExited(pid); }));
    EXPECT_FALSE(ORVOSystemdReload("testunit")) << "a killed unit is not running";
    EXPECT_EQ(LastLogLine(), "testunit failed: not running");
}

TEST_F(SystemdReloadTest, UnitsThatCannotBeReloaded) {
    EXPECT_FALSE(ORVOSystemdReload("orvorelayd"));
    EXPECT_EQ(LastLogLine(), "orvorelayd failed: not running (no pid file)");

    for (const char* content : {"", "abc", "12abc", "99999999999", "-"}) {
        WriteFile(kRunDir + "/broken.pid", content);
        EXPECT_FALSE(ORVOSystemdReload("broken")) << content;
        EXPECT_EQ(LastLogLine(), "broken failed: bad pid file") << content;
    }
    for (const char* name : {"", "../etc/x", ".hidden", "two\nlines"}) {
        EXPECT_FALSE(ORVOSystemdReload(name));
        EXPECT_NE(LastLogLine().find("failed: invalid unit name"), std::string::npos);
    }
    EXPECT_EQ(ReadLines(ORVO::Paths::kSystemdReloadLog).size(), 10u) << "one line per request";
}

// Pid 0 would signal the caller's whole process group; the check runs in a
// child with a group of its own so that a fault cannot reach the test runner.
TEST_F(SystemdReloadTest, PidZeroSignalsNobody) {
    WriteFile(kRunDir + "/zero.pid", "0\n");
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::setsid();
        _exit(ORVOSystemdReload("zero") ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "the child was signalled";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
