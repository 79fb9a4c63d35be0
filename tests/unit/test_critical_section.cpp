// The privileged section as the host runs it: root process whose effective
// ids were dropped to an unprivileged user while the saved ids stay 0.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "critical_section.h"
#include "private_syslog.h"

namespace {

constexpr uid_t kServiceUid = 65534;
constexpr gid_t kServiceGid = 65534;
constexpr char kSource[] = "test";
constexpr int kLine = 42;

struct Line {
    int priority;
    std::string message;
    bool operator==(const Line& other) const {
        return priority == other.priority && message == other.message;
    }
};

std::ostream& operator<<(std::ostream& out, const Line& line) {
    return out << "<" << line.priority << ">" << line.message;
}

Line Warning(const char* label) {
    return {39, "test:42 WARNING: set" + std::string(label) + "(-1, 0, -1)"};
}
Line Error(const std::string& text) { return {35, "test:42 ERROR: " + text}; }

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

    std::vector<Line> LoggedLines(std::size_t expected = 0) {
        if (expected > 0) syslog_.WaitForLines(expected, std::chrono::seconds(5));
        std::vector<Line> lines;
        for (const auto& record : syslog_.Records()) {
            lines.push_back({record.priority, record.message});
        }
        return lines;
    }

    // Runs a scenario in a child process (for steps that cannot be undone)
    // and returns the child's exit status.
    template <typename Scenario>
    int InChild(Scenario scenario) {
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
    const int result = RunPrivileged(kSource, kLine, [] { return geteuid() + 7; });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(LoggedLines().empty());
}

TEST_F(CriticalSectionTest, DroppedProcessIsRootInsideAndRestoredAfter) {
    DropTo(kServiceUid, kServiceGid);
    uid_t insideUid = 1;
    gid_t insideGid = 1;
    RunPrivileged(kSource, kLine, [&] {
        insideUid = geteuid();
        insideGid = getegid();
    });
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(insideUid, 0u);
    EXPECT_EQ(insideGid, 0u);
    EXPECT_EQ(geteuid(), kServiceUid);
    EXPECT_EQ(getegid(), kServiceGid);
    uid_t real, effective, saved;
    getresuid(&real, &effective, &saved);
    EXPECT_EQ(real, 0u);
    EXPECT_EQ(saved, 0u);
    // Leaving goes to root first (the one trace line), then group, then user.
    EXPECT_EQ(LoggedLines(), (std::vector<Line>{Warning("resgid"), Warning("resuid"),
                                                Warning("resuid")}));
}

TEST_F(CriticalSectionTest, RootGroupSwitchesOnlyTheUser) {
    DropTo(kServiceUid, 0);
    RunPrivileged(kSource, kLine, [] {});
    EXPECT_EQ(geteuid(), kServiceUid);
    EXPECT_EQ(getegid(), 0u);
    EXPECT_EQ(LoggedLines(), (std::vector<Line>{Warning("resuid"), Warning("resuid")}));
}

TEST_F(CriticalSectionTest, FailedGroupSwitchStillRunsTheBodyOnce) {
    const int status = InChild([] {
        // Without root in any of its group ids the process cannot regain it.
        if (setresgid(kServiceGid, kServiceGid, kServiceGid) != 0) return 10;
        if (setresuid(-1, kServiceUid, -1) != 0) return 11;
        int runs = 0;
        int errnoInside = -1;
        uid_t uidInside = 0;
        RunPrivileged(kSource, kLine, [&] {
            ++runs;
            errnoInside = errno;
            uidInside = geteuid();
        });
        if (runs != 1) return 12;
        if (errnoInside != EPERM) return 13;
        if (uidInside != kServiceUid) return 14;  // the user switch is skipped
        if (errno != 0) return 15;                // nothing to undo on leave
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(LoggedLines(2),
              (std::vector<Line>{Error("setresgid(-1, 0, -1) [Operation not permitted]"),
                                 Error("ENTERCriticalSection")}));
}

TEST_F(CriticalSectionTest, FailedReturnToRootOnLeaveStopsRestoring) {
    const int status = InChild([] {
        if (setresgid(-1, kServiceGid, -1) != 0) return 10;
        if (setresuid(-1, kServiceUid, -1) != 0) return 11;
        // The body gives up root for good, so the way back is closed.
        RunPrivileged(kSource, kLine, [] { return setresuid(1000, 1000, 1000); });
        if (errno != EPERM) return 12;
        if (geteuid() != 1000 || getegid() != 0) return 13;
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(LoggedLines(4),
              (std::vector<Line>{Warning("resgid"), Warning("resuid"),
                                 Error("setresuid(-1, 0, -1) [Operation not permitted]"),
                                 Error("LEAVECriticalSection")}));
}

}  // namespace
