#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "private_syslog.h"
#include "test_helpers.h"

namespace {

using farlink_test::ParseSyslogLine;
using farlink_test::SyslogRecord;
using platform_test::PrivateRootTest;
using platform_test::ReadFile;
using platform_test::WriteFile;

// The parent process (the test runner) still sees the machine's mounts, so
// its view shows whether writes escaped the private namespace.
TEST_F(PrivateRootTest, WritesStayPrivate) {
    std::string outside = "/proc/" + std::to_string(::getppid());
    struct stat self;
    struct stat parent;
    ASSERT_EQ(::stat("/proc/self/ns/mnt", &self), 0);
    ASSERT_EQ(::stat((outside + "/ns/mnt").c_str(), &parent), 0);
    ASSERT_NE(self.st_ino, parent.st_ino);

    std::string marker = "farlink-private-root-" + std::to_string(::getpid());
    WriteFile("/etc/" + marker, "x");
    WriteFile("/usr/orvo/etc/" + marker, "x");
    EXPECT_EQ(ReadFile("/etc/" + marker), "x");
    EXPECT_NE(::access((outside + "/root/etc/" + marker).c_str(), F_OK), 0);
    EXPECT_NE(::access((outside + "/root/usr/orvo/etc/" + marker).c_str(), F_OK), 0);
    EXPECT_FALSE(ReadFile("/etc/passwd").empty()) << "the machine's files stay visible";
}

TEST(SyslogParseTest, SplitsGlibcLines) {
    SyslogRecord record;
    ASSERT_TRUE(ParseSyslogLine("<35>Jan  5 01:02:03 webapi[12]: utils:42 ERROR: x: y\n", record));
    EXPECT_EQ(record.priority, 35);
    EXPECT_EQ(record.tag, "webapi[12]");
    EXPECT_EQ(record.message, "utils:42 ERROR: x: y\n");

    for (const char* bad : {"", "35>Jan  5 01:02:03 t: m", "<x>Jan  5 01:02:03 t: m", "<3>short: m",
                            "<3>Jan  5 01:02:03 no separator"}) {
        EXPECT_FALSE(ParseSyslogLine(bad, record)) << bad;
    }
}

TEST_F(PrivateRootTest, PrivateSyslogCatchesLinesWithoutBlocking) {
    farlink_test::PrivateSyslog log;
    ASSERT_TRUE(log.Ok()) << log.Error();

    // Far more lines than a datagram socket queues: senders must not block.
    for (int i = 0; i < 200; ++i) {
        ::syslog(LOG_ERR, "%s:%d line %d", "utils", 7, i);
    }
    ::syslog(LOG_AUTH | LOG_DEBUG, "%s:%d WARNING: set%s(%d, %d, %d)", "utils", 9, "resuid", -1, 0,
             -1);
    std::vector<SyslogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 201u);
    EXPECT_EQ(records[0].priority, LOG_USER | LOG_ERR) << "glibc adds the default facility";
    EXPECT_EQ(records[0].message, "utils:7 line 0");
    EXPECT_EQ(records[199].message, "utils:7 line 199");
    EXPECT_EQ(records[200].priority, 39);
    EXPECT_EQ(records[200].message, "utils:9 WARNING: setresuid(-1, 0, -1)");

    log.Clear();
    EXPECT_TRUE(log.Lines().empty());

    // Programs run in the namespace still find the basic devices.
    int null = ::open("/dev/null", O_WRONLY);
    EXPECT_EQ(::write(null, "x", 1), 1);
    ::close(null);
    unsigned char random[8];
    int urandom = ::open("/dev/urandom", O_RDONLY);
    EXPECT_EQ(::read(urandom, random, sizeof random), 8);
    ::close(urandom);
}

}  // namespace
