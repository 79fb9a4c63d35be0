// The privileged section as the host runs it: a root process whose effective
// ids were dropped to an unprivileged user while the saved ids stay 0, with
// its trace in the box's system log. Runs inside a box.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "box_fixture.h"
#include "critical_section.h"

namespace farlink_test {
namespace {

using Lines = std::vector<std::pair<int, std::string>>;  // priority, message

constexpr uid_t kService = 65534;  // user and group
constexpr char kSource[] = "test";
constexpr int kLine = 42;

std::pair<int, std::string> Warning(const char* label) {
    return {4 * 8 + 7, "WARNING: set" + std::string(label) + "(-1, 0, -1)"};  // auth.debug
}
std::pair<int, std::string> Error(const std::string& text) {
    return {4 * 8 + 3, "ERROR: " + text};  // auth.err
}

class CriticalSectionTest : public BoxTest {
protected:
    void TearDown() override {
        // Back to full root so the next test starts from a known state.
        ASSERT_EQ(setresuid(-1, 0, -1), 0);
        ASSERT_EQ(setresgid(-1, 0, -1), 0);
    }

    // The section's lines since SetUp, after waiting up to `limit` for `count`.
    Lines Logged(size_t count, Milliseconds limit = Milliseconds(5000)) const {
        Lines lines;
        WaitUntil(
            [&] {
                lines.clear();
                for (const auto& line : SyslogSinceSetUp())
                    if (line.source == kSource) lines.emplace_back(line.priority, line.message);
                return lines.size() >= count;
            },
            limit);
        return lines;
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
};

TEST_F(CriticalSectionTest, RootProcessMakesNoSwitchAndLogsNothing) {
    errno = 5;
    EXPECT_EQ(RunPrivileged(kSource, kLine, [] { return geteuid() + 7; }), 7u);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(Logged(1, Milliseconds(300)).empty());
}

TEST_F(CriticalSectionTest, RootGroupSwitchesOnlyTheUser) {
    ASSERT_EQ(setresuid(-1, kService, -1), 0);
    RunPrivileged(kSource, kLine, [] {});
    EXPECT_EQ(geteuid(), kService);
    EXPECT_EQ(getegid(), 0u);
    EXPECT_EQ(Logged(2), (Lines{Warning("resuid"), Warning("resuid")}));
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
    EXPECT_EQ(Logged(2), (Lines{Error("setresgid(-1, 0, -1) [Operation not permitted]"),
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
    EXPECT_EQ(Logged(4), (Lines{Warning("resgid"), Warning("resuid"),
                                Error("setresuid(-1, 0, -1) [Operation not permitted]"),
                                Error("LEAVECriticalSection")}));
}

}  // namespace
}  // namespace farlink_test
