// Platform pieces with fixed paths under /usr/orvo and /etc, in the test
// process's private view of them: the view itself, and the faults of the
// portal domain and the service manager's reload that the box tests do not
// bring about.
#include <gtest/gtest.h>
#include <orvo/core.h>
#include <orvo/paths.h>
#include <orvo/systemd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "test_helpers.h"

namespace {

using platform_test::PrivateRootTest;
using platform_test::ReadFile;
using platform_test::ReadLines;
using platform_test::WriteFile;

// The parent process (the test runner) still sees the machine's mounts, so
// its view shows whether writes escaped the private namespace.
TEST_F(PrivateRootTest, WritesStayPrivate) {
    const std::string outside = "/proc/" + std::to_string(::getppid());
    struct stat self, parent;
    ASSERT_EQ(::stat("/proc/self/ns/mnt", &self), 0);
    ASSERT_EQ(::stat((outside + "/ns/mnt").c_str(), &parent), 0);
    ASSERT_NE(self.st_ino, parent.st_ino);

    const std::string marker = "farlink-private-root-" + std::to_string(::getpid());
    WriteFile("/etc/" + marker, "x");
    WriteFile("/usr/orvo/etc/" + marker, "x");
    EXPECT_EQ(ReadFile("/etc/" + marker), "x");
    EXPECT_NE(::access((outside + "/root/etc/" + marker).c_str(), F_OK), 0);
    EXPECT_NE(::access((outside + "/root/usr/orvo/etc/" + marker).c_str(), F_OK), 0);
    EXPECT_FALSE(ReadFile("/etc/passwd").empty()) << "the machine's files stay visible";
}

TEST_F(PrivateRootTest, PortalDomainIsReadTruncatedOrRefused) {
    // The result and the buffer's text, the buffer prefilled with 'X'.
    const auto get = [](int size) {
        std::string buffer(static_cast<std::size_t>(size), 'X');
        const int result = OLIBRelaydGetPortalDomain(&buffer[0], size);
        return std::make_pair(result, std::string(buffer.c_str()));
    };
    const auto refused = std::make_pair(-1, std::string());
    EXPECT_EQ(get(64), refused) << "no file";
    for (const std::string& text :
         {std::string("not json"), std::string("[1, 2]"), std::string(R"({"server_control": 3})"),
          std::string(R"({"server_control": {}})"),
          std::string(R"({"server_control": {"portal_domain": 42}})"),
          std::string(100000, '[') + std::string(100000, ']')}) {
        WriteFile(ORVO::Paths::kRelaydConf, text);
        EXPECT_EQ(get(64), refused) << text.substr(0, 60);
    }
    WriteFile(
        ORVO::Paths::kRelaydConf,
        R"({"server_control": {"host": "cnc.farlink.test", "portal_domain": "farlink.test"}})");
    EXPECT_EQ(get(64), std::make_pair(0, std::string("farlink.test")));
    EXPECT_EQ(get(5), std::make_pair(0, std::string("farl")));
    EXPECT_EQ(OLIBRelaydGetPortalDomain(nullptr, 10), -1);
}

std::string LastReloadLine() {
    const std::vector<std::string> lines = ReadLines(ORVO::Paths::kSystemdReloadLog);
    return lines.empty() ? "" : lines.back();
}

TEST_F(PrivateRootTest, UnitsThatCannotBeReloaded) {
    for (const char* content : {"", "abc", "12abc", "99999999999", "-"}) {
        WriteFile(std::string(ORVO::Paths::kRunDir) + "/broken.pid", content);
        EXPECT_FALSE(ORVOSystemdReload("broken")) << content;
        EXPECT_EQ(LastReloadLine(), "broken failed: bad pid file") << content;
    }
    for (const char* name : {"", "../etc/x", ".hidden", "two\nlines"}) {
        EXPECT_FALSE(ORVOSystemdReload(name));
        EXPECT_NE(LastReloadLine().find("failed: invalid unit name"), std::string::npos);
    }
    EXPECT_EQ(ReadLines(ORVO::Paths::kSystemdReloadLog).size(), 9u) << "one line per request";

    // Pid 0 would signal the caller's whole process group; the check runs in
    // a child with a group of its own so that a fault cannot reach the runner.
    WriteFile(std::string(ORVO::Paths::kRunDir) + "/zero.pid", "0\n");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::setsid();
        _exit(ORVOSystemdReload("zero") ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child was signalled";
}

}  // namespace
