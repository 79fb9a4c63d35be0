// Failed logins counted per client group, so that guessing the password is
// slow without anyone being able to lock the administrator out:
// - a group is one IPv4 address or one IPv6 /64 (what one client commonly
//   holds); the first few failures of a group cost nothing (a person
//   mistypes), then each further attempt must wait longer than the one
//   before, up to `maxDelay`, so a group gets about 3600 / maxDelay checked
//   passwords an hour. It is never locked out for longer.
// - all groups together share a budget: after `globalBurst` failures in a
//   row, failures are paced to one per `globalInterval`, and a group that
//   has failed before waits for its turn. A group without failures is never
//   held by the others: an administrator at another address gets in
//   whatever arrives from elsewhere.
// While a group must wait, its attempts are refused without looking at the
// password. A success clears its group; failures are forgotten once the
// group has been quiet for `forgetAfter` and failures are not being paced. The table is bounded: at
// the cap, the group quiet the longest is forgotten.
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
    std::chrono::seconds maxDelay{36};          // the longest wait: 100 checks an hour
    std::chrono::seconds forgetAfter{15 * 60};  // of quiet, counted from the last failure
    int globalBurst = 100;                      // failures of all groups before pacing
    std::chrono::milliseconds globalInterval{3600};  // then one failure per interval
    std::size_t capacity = 4096;                     // groups remembered
};

// The group of a textual client address: the address itself for IPv4 (also
// when IPv4-mapped), the /64 for IPv6, the text itself for anything else.
std::string ClientGroup(const std::string& address);

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
    // When failures stop being paced.
    Clock::time_point BudgetRoom() const;
    Records::iterator FindLive(const std::string& group, Clock::time_point now);
    void Erase(Records::iterator it);

    const ThrottlePolicy policy_;
    const Now now_;
    Records records_;
    std::list<std::string> byAge_;  // quiet the longest first
    // When the shared budget has room for the next failure again: it moves
    // on by one interval per failure and may run ahead of now by the burst.
    Clock::time_point budgetTime_{};
};

}  // namespace farlink::host
