// The host's security rules on their own, with a clock the test moves:
// when sessions end, how failed logins are throttled, and which headers
// every answer carries.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "login_throttle.h"
#include "reply_headers.h"
#include "sandbox.h"
#include "sessions.h"

namespace farlink::host {
namespace {

using std::chrono::seconds;

struct FakeClock {
    std::chrono::steady_clock::time_point now{};
    std::function<std::chrono::steady_clock::time_point()> Source() {
        return [this] { return now; };
    }
};

TEST(HostSessions, EndAtIdleTimeLifetimeLogoutAndLeastRecentlyUsedAtTheCap) {
    FakeClock clock;
    SessionStore store({seconds(10), seconds(30), 2}, clock.Source());
    const Session busy = *store.Create();
    EXPECT_NE(busy.token, busy.id);
    EXPECT_EQ(store.TokenOf(busy.id), busy.token);

    // Used every 9 s it outlives the idle time, but not its lifetime.
    for (int i = 0; i < 3; ++i) {
        clock.now += seconds(9);
        ASSERT_TRUE(store.TokenOf(busy.id)) << i;
        store.Touch(busy.id);
    }
    clock.now += seconds(3);
    EXPECT_FALSE(store.TokenOf(busy.id)) << "past its lifetime";

    const Session idle = *store.Create();
    clock.now += seconds(10);
    EXPECT_FALSE(store.TokenOf(idle.id)) << "idle too long";
    // Only Touch counts as a use: TokenOf alone does not keep a session up.
    const Session looked = *store.Create();
    clock.now += seconds(5);
    EXPECT_TRUE(store.TokenOf(looked.id));
    clock.now += seconds(5);
    EXPECT_FALSE(store.TokenOf(looked.id));

    const Session left = *store.Create();
    EXPECT_TRUE(store.End(left.id));
    EXPECT_FALSE(store.TokenOf(left.id));
    EXPECT_FALSE(store.End(left.id));

    // At the cap a login ends the session used least recently.
    const Session a = *store.Create();
    const Session b = *store.Create();
    clock.now += seconds(1);
    store.Touch(a.id);
    const Session c = *store.Create();
    EXPECT_TRUE(store.TokenOf(a.id));
    EXPECT_FALSE(store.TokenOf(b.id));
    EXPECT_TRUE(store.TokenOf(c.id));
}

TEST(HostLoginThrottle, FreeFailuresThenGrowingWaitsUpToTheLongestPerGroup) {
    FakeClock clock;
    LoginThrottle throttle({}, clock.Source());
    const ThrottlePolicy policy;
    for (int i = 1; i < policy.freeFailures; ++i) {
        throttle.Failed("10.0.0.1");
        EXPECT_EQ(throttle.Wait("10.0.0.1"), seconds(0)) << "failure " << i;
    }
    // From here each failure doubles the wait, up to the longest.
    seconds expected(1);
    for (int i = policy.freeFailures; i < policy.freeFailures + 8; ++i) {
        throttle.Failed("10.0.0.1");
        EXPECT_EQ(throttle.Wait("10.0.0.1"), expected) << "failure " << i;
        EXPECT_EQ(throttle.Wait("::ffff:10.0.0.1"), expected) << "the same address";
        clock.now += expected;
        EXPECT_EQ(throttle.Wait("10.0.0.1"), seconds(0));
        expected = std::min(expected * 2, policy.maxDelay);
    }
    throttle.Failed("10.0.0.1");
    EXPECT_EQ(throttle.Wait("10.0.0.2"), seconds(0)) << "another address is not affected";
    clock.now += std::chrono::milliseconds(1500);
    EXPECT_EQ(throttle.Wait("10.0.0.1"), policy.maxDelay - seconds(1)) << "rounded up";

    // An IPv6 client's whole /64 is one group.
    for (int i = 0; i < policy.freeFailures; ++i)
        throttle.Failed("2001:db8:0:1::" + std::to_string(i));
    EXPECT_GT(throttle.Wait("2001:db8:0:1:ffff::9"), seconds(0));
    EXPECT_EQ(throttle.Wait("2001:db8:0:2::1"), seconds(0));

    // A success clears the group.
    throttle.Succeeded("2001:db8:0:1::77");
    EXPECT_EQ(throttle.Wait("2001:db8:0:1::"), seconds(0));
}

// An hour of guessing as fast as the throttle lets, from one group and from
// a thousand, while the administrator logs in from elsewhere now and then.
TEST(HostLoginThrottle, GuessesAreBoundedPerGroupAndInTotalAndNeverHoldAnotherClient) {
    FakeClock clock;
    LoginThrottle throttle({}, clock.Source());
    const auto guessFor = [&](seconds span, int groups) {
        std::vector<std::string> addresses;
        for (int g = 0; g < groups; ++g)
            addresses.push_back("10.1." + std::to_string(g / 250) + "." + std::to_string(g % 250));
        int checked = 0;
        for (const auto end = clock.now + span; clock.now < end; clock.now += seconds(1)) {
            for (const std::string& address : addresses) {
                if (throttle.Wait(address) > seconds(0)) continue;
                throttle.Failed(address);
                ++checked;
            }
            if (clock.now.time_since_epoch() % seconds(60) == seconds(0)) {
                EXPECT_EQ(throttle.Wait("192.0.2.7"), seconds(0)) << "the administrator";
            }
        }
        return checked;
    };
    const int oneGroup = guessFor(seconds(3600), 1);
    EXPECT_GE(oneGroup, 90);
    EXPECT_LE(oneGroup, 115);
    const int manyGroups = guessFor(seconds(3600), 1000);
    EXPECT_LE(manyGroups, 1100 + 1000) << "the budget's pace plus a first guess per group";
}

TEST(HostLoginThrottle, ForgetsTheQuietestAddressAtItsCap) {
    FakeClock clock;
    ThrottlePolicy policy;
    policy.freeFailures = 1;
    policy.capacity = 2;
    LoginThrottle throttle(policy, clock.Source());
    throttle.Failed("a");
    clock.now += seconds(1);
    throttle.Failed("b");
    throttle.Failed("c");
    EXPECT_EQ(throttle.Wait("a"), seconds(0));
    EXPECT_GT(throttle.Wait("b"), seconds(0));
    EXPECT_GT(throttle.Wait("c"), seconds(0));
}

// The admin page's own files may load what the page serves; nothing else
// may load anything.
TEST(HostReplyHeaders, ThePolicyFollowsTheContentType) {
    const auto policyOf = [](const std::string& type) {
        for (const auto& [name, value] : SafeHeaders(type)) {
            if (name == "Content-Security-Policy") return value;
        }
        return std::string();
    };
    for (const std::string type :
         {"application/json; charset=utf-8", "text/plain", "", "image/svg+xml", "text/html-x"}) {
        EXPECT_EQ(policyOf(type), "default-src 'none'; frame-ancestors 'none'") << type;
    }
    for (const std::string type : {"text/html; charset=utf-8", "Text/CSS", "text/javascript"}) {
        EXPECT_NE(policyOf(type).find("script-src 'self'"), std::string::npos) << type;
        EXPECT_NE(policyOf(type).find("frame-ancestors 'none'"), std::string::npos) << type;
    }
}

// How a child ends that confines itself with `confine` and then does `act`:
// its signal, 0 for a normal end, -1 when there is nothing to confine with.
int ConfinedEnd(bool (*confine)(), void (*act)()) {
    const pid_t child = fork();
    if (child == 0) {
        if (!confine()) _exit(77);
        act();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status)         ? WTERMSIG(status)
           : WEXITSTATUS(status) == 77 ? -1
                                       : WEXITSTATUS(status);
}

TEST(HostFrontSandbox, ReadingAndServingGoOnAnythingElseEndsTheProcess) {
    const int served = ConfinedEnd(ConfineSystemCalls, [] {
        char byte;
        const int fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
        if (fd < 0 || read(fd, &byte, 1) != 1 || write(STDOUT_FILENO, "", 0) != 0) _exit(1);
    });
    if (served == -1) GTEST_SKIP() << "no system call filter in a sanitizer build";
    EXPECT_EQ(served, 0);
    EXPECT_EQ(ConfinedEnd(ConfineSystemCalls, [] { execl("/bin/true", "true", nullptr); }), SIGSYS);
    EXPECT_EQ(ConfinedEnd(ConfineSystemCalls,
                          [] { open("/tmp/farlink-sandbox-test", O_WRONLY | O_CREAT, 0600); }),
              SIGSYS);
    EXPECT_EQ(ConfinedEnd(ConfineSystemCalls, [] { kill(getppid(), 0); }), SIGSYS);
}

TEST(HostFrontSandbox, FilesAreReadOnlyBeneathTheGivenRoot) {
    const auto confine = [] { return ConfineFiles("/usr/include"); };
    const int ended = ConfinedEnd(confine, [] {
        const int inside = open("/usr/include/stdio.h", O_RDONLY | O_CLOEXEC);
        const int outside = open("/etc/passwd", O_RDONLY | O_CLOEXEC);
        _exit(inside >= 0 && outside < 0 && errno == EACCES ? 0 : 1);
    });
    if (ended == -1) GTEST_SKIP() << "no Landlock here, or a sanitizer build";
    EXPECT_EQ(ended, 0);
}

}  // namespace
}  // namespace farlink::host
