// Failed logins counted per client address, so that guessing the password
// from one address is slow: the first few failures cost nothing (a person
// mistypes), then each further attempt must wait longer than the one before,
// and after many the address is refused for a while. While an address must
// wait, its attempts are refused without looking at the password, so the
// right one from that address is refused too; other addresses are not
// affected. A success clears its address; failures are forgotten once the
// address has been quiet for `forgetAfter`. The table is bounded: at the
// cap, the address quiet the longest is forgotten.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <unordered_map>

namespace farlink::host {

struct ThrottlePolicy {
    int freeFailures = 5;                       // before any waiting
    std::chrono::seconds firstDelay{1};         // after failure freeFailures; doubles with each
    int lockoutFailures = 10;                   // from here on: refused for `lockout`
    std::chrono::seconds lockout{15 * 60};      //
    std::chrono::seconds forgetAfter{15 * 60};  // of quiet, counted from the last failure
    std::size_t capacity = 4096;                // addresses remembered
};

class LoginThrottle {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    explicit LoginThrottle(ThrottlePolicy policy = {}, Now now = Clock::now)
        : policy_(policy), now_(std::move(now)) {}

    // How long `address` must still wait before its next attempt (rounded
    // up to whole seconds); zero when it may try now.
    std::chrono::seconds Wait(const std::string& address);
    void Failed(const std::string& address);
    void Succeeded(const std::string& address);

private:
    struct Record {
        int failures = 0;
        Clock::time_point lastFailure;
        Clock::time_point notBefore;
        std::list<std::string>::iterator byAge;
    };
    using Records = std::unordered_map<std::string, Record>;

    std::chrono::seconds DelayAfter(int failures) const;
    Records::iterator FindLive(const std::string& address, Clock::time_point now);
    void Erase(Records::iterator it);

    const ThrottlePolicy policy_;
    const Now now_;
    Records records_;
    std::list<std::string> byAge_;  // quiet the longest first
};

}  // namespace farlink::host
