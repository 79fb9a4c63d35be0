// The privileged section as the host runs it: root process whose effective
// ids were dropped to an unprivileged user while the saved ids stay 0.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "critical_section.h"
#include "private_syslog.h"

namespace {

using Lines = std::vector<farlink_test::SyslogRecord>;

constexpr uid_t kService = 65534;  // user and group
constexpr char kSource[] = "test";
constexpr int kLine = 42;

farlink_test::SyslogRecord Warning(const char* label) {
    return {39, "test:42 WARNING: set" + std::string(label) + "(-1, 0, -1)"};
}
farlink_test::SyslogRecord Error(const std::string& text) { return {35, "test:42 ERROR: " + text}; }

class CriticalSectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root";
        ASSERT_TRUE(syslog_.Ok()) << syslog_.Error();
    }
    void TearDown() override {
        // Back to full root so the next test starts from a known state.
        ASSERT_EQ(setresuid(-1, 0, -1), 0);
        ASSERT_EQ(setresgid(-1, 0, -1), 0);
    }

    // Runs a scenario that cannot be undone in a child process; its exit
    // status (0 when every check in it held).
    template <typename Scenario>
    static int InChild(Scenario scenario) {
        const pid_t child = fork();
        if (child == 0) _exit(scenario());
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
    }

    static void DropTo(uid_t uid, gid_t gid) {
        ASSERT_EQ(setresgid(-1, gid, -1), 0);
        ASSERT_EQ(setresuid(-1, uid, -1), 0);
    }

    farlink_test::PrivateSyslog syslog_;
};

TEST_F(CriticalSectionTest, RootProcessMakesNoSwitchAndLogsNothing) {
    errno = 5;
    EXPECT_EQ(RunPrivileged(kSource, kLine, [] { return geteuid() + 7; }), 7u);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(syslog_.Records().empty());
}

TEST_F(CriticalSectionTest, DroppedProcessIsRootInsideAndRestoredAfter) {
    DropTo(kService, kService);
    uid_t insideUid = 1;
    gid_t insideGid = 1;
    RunPrivileged(kSource, kLine, [&] {
        insideUid = geteuid();
        insideGid = getegid();
    });
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(insideUid, 0u);
    EXPECT_EQ(insideGid, 0u);
    uid_t real, effective, saved;
    getresuid(&real, &effective, &saved);
    EXPECT_EQ(real, 0u);
    EXPECT_EQ(effective, kService);
    EXPECT_EQ(saved, 0u);
    EXPECT_EQ(getegid(), kService);
    // Leaving goes to root first (the one trace line), then group, then user.
    EXPECT_EQ(syslog_.Records(), (Lines{Warning("resgid"), Warning("resuid"), Warning("resuid")}));
}

TEST_F(CriticalSectionTest, RootGroupSwitchesOnlyTheUser) {
    DropTo(kService, 0);
    RunPrivileged(kSource, kLine, [] {});
    EXPECT_EQ(geteuid(), kService);
    EXPECT_EQ(getegid(), 0u);
    EXPECT_EQ(syslog_.Records(), (Lines{Warning("resuid"), Warning("resuid")}));
}

TEST_F(CriticalSectionTest, FailedGroupSwitchStillRunsTheBodyOnce) {
    const int status = InChild([] {
        // Without root in any of its group ids the process cannot regain it.
        if (setresgid(kService, kService, kService) != 0 || setresuid(-1, kService, -1) != 0)
            return 10;
        int runs = 0;
        int errnoInside = -1;
        uid_t uidInside = 0;
        RunPrivileged(kSource, kLine, [&] {
            ++runs;
            errnoInside = errno;
            uidInside = geteuid();
        });
        if (runs != 1 || errnoInside != EPERM) return 11;
        if (uidInside != kService) return 12;  // the user switch is skipped
        return errno != 0 ? 13 : 0;            // nothing to undo on leave
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(syslog_.Records(2), (Lines{Error("setresgid(-1, 0, -1) [Operation not permitted]"),
                                         Error("ENTERCriticalSection")}));
}

TEST_F(CriticalSectionTest, FailedReturnToRootOnLeaveStopsRestoring) {
    const int status = InChild([] {
        if (setresgid(-1, kService, -1) != 0 || setresuid(-1, kService, -1) != 0) return 10;
        // The body gives up root for good, so the way back is closed.
        RunPrivileged(kSource, kLine, [] { return setresuid(1000, 1000, 1000); });
        if (errno != EPERM) return 11;
        return geteuid() != 1000 || getegid() != 0 ? 12 : 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(syslog_.Records(4), (Lines{Warning("resgid"), Warning("resuid"),
                                         Error("setresuid(-1, 0, -1) [Operation not permitted]"),
                                         Error("LEAVECriticalSection")}));
}

}  // namespace
