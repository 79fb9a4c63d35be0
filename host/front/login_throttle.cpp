#include "login_throttle.h"

#include <algorithm>

namespace farlink::host {

std::chrono::seconds LoginThrottle::DelayAfter(int failures) const {
    if (failures < policy_.freeFailures) return std::chrono::seconds(0);
    if (failures >= policy_.lockoutFailures) return policy_.lockout;
    const int doublings = std::min(failures - policy_.freeFailures, 30);
    const std::chrono::seconds delay(policy_.firstDelay.count() << doublings);
    return std::min(delay, policy_.lockout);
}

void LoginThrottle::Erase(Records::iterator it) {
    byAge_.erase(it->second.byAge);
    records_.erase(it);
}

// The record of `address`, unless it is absent or forgotten by now.
LoginThrottle::Records::iterator LoginThrottle::FindLive(const std::string& address,
                                                         Clock::time_point now) {
    auto found = records_.find(address);
    if (found == records_.end()) return found;
    const Record& record = found->second;
    if (now >= record.notBefore && now - record.lastFailure >= policy_.forgetAfter) {
        Erase(found);
        return records_.end();
    }
    return found;
}

std::chrono::seconds LoginThrottle::Wait(const std::string& address) {
    const Clock::time_point now = now_();
    auto found = FindLive(address, now);
    if (found == records_.end() || now >= found->second.notBefore) return std::chrono::seconds(0);
    const auto left = found->second.notBefore - now;
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
    return whole + std::chrono::seconds(whole < left ? 1 : 0);
}

void LoginThrottle::Failed(const std::string& address) {
    const Clock::time_point now = now_();
    auto found = FindLive(address, now);
    if (found == records_.end()) {
        if (records_.size() >= policy_.capacity) Erase(records_.find(byAge_.front()));
        byAge_.push_back(address);
        found = records_.emplace(address, Record{0, now, now, std::prev(byAge_.end())}).first;
    }
    Record& record = found->second;
    ++record.failures;
    record.lastFailure = now;
    record.notBefore = now + DelayAfter(record.failures);
    byAge_.splice(byAge_.end(), byAge_, record.byAge);
}

void LoginThrottle::Succeeded(const std::string& address) {
    auto found = records_.find(address);
    if (found != records_.end()) Erase(found);
}

}  // namespace farlink::host
