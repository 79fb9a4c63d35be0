#include <fcntl.h>
#include <gtest/gtest.h>
#include <orvo/core.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "test_helpers.h"

namespace {

using platform_test::ReadFile;
using platform_test::TempDir;
using platform_test::WaitUntil;

constexpr char kShell[] = "/bin/sh";

// Whether a child of this process has ended and is not reaped.
bool ZombieChild() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

// Prints every argument in brackets, so that splitting and quoting show.
constexpr char kPrintArgs[] = "for a; do printf '[%s]' \"$a\"; done";

TEST(ExecTest, ArgumentsArriveIntact) {
    FILE* stream =
        OLIBCPopen(kShell, "r", "-c", kPrintArgs, "sh", "two words", "", "'\"$HOME;*", nullptr);
    ASSERT_NE(stream, nullptr);
    char text[256] = {};
    EXPECT_GT(std::fread(text, 1, sizeof text - 1, stream), 0u);  // reads to the end of output
    EXPECT_STREQ(text, "[two words][]['\"$HOME;*]");
    std::fclose(stream);
}

TEST(ExecTest, ExitStatusSignalsAndProgramsThatCannotRun) {
    EXPECT_EQ(OLIBCExec(kShell, "-c", "exit 7", nullptr, nullptr), 7);
    EXPECT_EQ(OLIBCExec(kShell, "-c", "kill -TERM $$", nullptr, nullptr), 128 + SIGTERM);
    EXPECT_EQ(OLIBCExecl(kShell, 0, "-c", "exit 3", nullptr), 3);
    // The list stops at the first null even when later slots are filled.
    EXPECT_EQ(OLIBCExec(kShell, "-c", "exit $#", nullptr, "ignored"), 0);

    const std::string missing = "/nonexistent/program";
    EXPECT_EQ(OLIBCExec(missing.c_str(), nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(OLIBCExecl(missing.c_str(), OLIBC_EXEC_NOWAIT | OLIBC_EXEC_DETACH, nullptr), -1);
    errno = 0;
    EXPECT_EQ(OLIBCPopen(missing.c_str(), "r", nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(OLIBCPopen(kShell, "rw", nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(OLIBCExecl(kShell, 0x1000, "-c", "true", nullptr), -1) << "unknown flag bits";
}

TEST(ExecTest, ChildGetsCleanDescriptorsAndSignals) {
    int leaked = ::open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
    ASSERT_GE(leaked, 0);
    std::string probe = "test -e /proc/self/fd/" + std::to_string(leaked);
    EXPECT_EQ(OLIBCExec(kShell, "-c", probe.c_str(), nullptr, nullptr), 1);
    ::close(leaked);

    sigset_t blockTerm, previous;
    sigemptyset(&blockTerm);
    sigaddset(&blockTerm, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blockTerm, &previous), 0);
    struct sigaction ignore {};
    struct sigaction oldAction {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGTERM, &ignore, &oldAction);

    int result = OLIBCExec(kShell, "-c", "kill -TERM $$; exit 0", nullptr, nullptr);

    ::sigaction(SIGTERM, &oldAction, nullptr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    EXPECT_EQ(result, 128 + SIGTERM) << "the caller's blocked or ignored signals leaked";
}

TEST(ExecTest, NoZombieAfterPopenClosedWithFclose) {
    for (const char* script : {"echo unread output", "exec sleep 0.2"}) {
        FILE* stream = OLIBCPopen(kShell, "r", "-c", script, nullptr);
        ASSERT_NE(stream, nullptr);
        std::fclose(stream);
    }
    EXPECT_TRUE(WaitUntil([] { return !ZombieChild(); }));
}

// The detached program reports its pid, its session and its standard streams.
TEST(ExecTest, DetachedProgramRunsInItsOwnSessionAndIsReaped) {
    TempDir dir;
    const std::string report = dir / "report";
    const char* script =
        "echo $$ $(cut -d' ' -f6 /proc/$$/stat) $(readlink /proc/$$/fd/0 /proc/$$/fd/1 "
        "/proc/$$/fd/2) > \"$1.tmp\" && mv \"$1.tmp\" \"$1\"";
    ASSERT_EQ(OLIBCExecl(kShell, OLIBC_EXEC_NOWAIT | OLIBC_EXEC_DETACH, "-c", script, "sh",
                         report.c_str(), nullptr),
              0);
    ASSERT_TRUE(WaitUntil([&] { return !ReadFile(report).empty(); }));
    std::istringstream fields(ReadFile(report));
    std::string pid, session, streams;
    fields >> pid >> session;
    std::getline(fields, streams);
    EXPECT_EQ(session, pid) << "not a session leader";
    EXPECT_NE(session, std::to_string(::getsid(0)));
    EXPECT_EQ(streams, " /dev/null /dev/null /dev/null");
    EXPECT_TRUE(WaitUntil([] { return !ZombieChild(); }));
}

}  // namespace
