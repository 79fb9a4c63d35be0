// The host's security rules on their own, with a clock the test moves:
// when sessions end, how failed logins are throttled, and which headers
// every answer carries.
#include <gtest/gtest.h>

#include "login_throttle.h"
#include "reply_headers.h"
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

TEST(HostLoginThrottle, FreeFailuresThenGrowingWaitsThenLockoutPerAddress) {
    FakeClock clock;
    LoginThrottle throttle({}, clock.Source());
    const ThrottlePolicy policy;
    for (int i = 1; i < policy.freeFailures; ++i) {
        throttle.Failed("10.0.0.1");
        EXPECT_EQ(throttle.Wait("10.0.0.1"), seconds(0)) << "failure " << i;
    }
    // From here each failure doubles the wait, until the lockout.
    seconds expected(1);
    for (int i = policy.freeFailures; i < policy.lockoutFailures; ++i, expected *= 2) {
        throttle.Failed("10.0.0.1");
        EXPECT_EQ(throttle.Wait("10.0.0.1"), expected) << "failure " << i;
        clock.now += expected;
        EXPECT_EQ(throttle.Wait("10.0.0.1"), seconds(0));
    }
    throttle.Failed("10.0.0.1");
    EXPECT_EQ(throttle.Wait("10.0.0.1"), policy.lockout);
    EXPECT_EQ(throttle.Wait("10.0.0.2"), seconds(0)) << "another address is not affected";
    clock.now += std::chrono::milliseconds(1500);
    EXPECT_EQ(throttle.Wait("10.0.0.1"), policy.lockout - seconds(1)) << "rounded up";

    // Once the lockout is over the address starts afresh.
    clock.now += policy.lockout;
    EXPECT_EQ(throttle.Wait("10.0.0.1"), seconds(0));
    throttle.Failed("10.0.0.1");
    EXPECT_EQ(throttle.Wait("10.0.0.1"), seconds(0));

    // A success clears the address.
    for (int i = 0; i < policy.freeFailures; ++i) throttle.Failed("10.0.0.3");
    EXPECT_GT(throttle.Wait("10.0.0.3"), seconds(0));
    throttle.Succeeded("10.0.0.3");
    EXPECT_EQ(throttle.Wait("10.0.0.3"), seconds(0));
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

TEST(HostReplyHeaders, EveryAnswerIsUnsniffedUncachedUnframedWithAPolicyByType) {
    const auto policyOf = [](const std::string& type) {
        for (const auto& [name, value] : SafeHeaders(type)) {
            if (name == "Content-Security-Policy") return value;
        }
        return std::string();
    };
    const std::string none = "default-src 'none'; frame-ancestors 'none'";
    for (const std::string type :
         {"application/json; charset=utf-8", "text/plain", "", "image/svg+xml"}) {
        EXPECT_EQ(policyOf(type), none) << type;
    }
    for (const std::string type : {"text/html; charset=utf-8", "Text/CSS", "text/javascript"}) {
        EXPECT_NE(policyOf(type).find("script-src 'self'"), std::string::npos) << type;
        EXPECT_NE(policyOf(type).find("frame-ancestors 'none'"), std::string::npos) << type;
    }
    const HeaderList expected = {{"X-Content-Type-Options", "nosniff"},
                                 {"Cache-Control", "no-store"},
                                 {"Referrer-Policy", "no-referrer"},
                                 {"X-Frame-Options", "DENY"},
                                 {"Content-Security-Policy", none}};
    EXPECT_EQ(SafeHeaders("application/json"), expected);
}

}  // namespace
}  // namespace farlink::host
