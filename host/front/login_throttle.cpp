#include "login_throttle.h"

#include <arpa/inet.h>

#include <algorithm>

namespace farlink::host {

std::string ClientGroup(const std::string& address) {
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) != 1) return address;
    char text[INET6_ADDRSTRLEN] = "";
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
        inet_ntop(AF_INET, &v6.s6_addr[12], text, sizeof text);
        return text;
    }
    std::fill(std::begin(v6.s6_addr) + 8, std::end(v6.s6_addr), 0);
    inet_ntop(AF_INET6, &v6, text, sizeof text);
    return std::string(text) + "/64";
}

std::chrono::seconds LoginThrottle::DelayAfter(int failures) const {
    if (failures < policy_.freeFailures) return std::chrono::seconds(0);
    const int doublings = std::min(failures - policy_.freeFailures, 30);
    const std::chrono::seconds delay(policy_.firstDelay.count() << doublings);
    return std::min(delay, policy_.maxDelay);
}

void LoginThrottle::Erase(Records::iterator it) {
    byAge_.erase(it->second.byAge);
    records_.erase(it);
}

LoginThrottle::Clock::time_point LoginThrottle::BudgetRoom() const {
    return budgetTime_ - policy_.globalInterval * policy_.globalBurst;
}

// The record of `group`, unless it is absent or forgotten by now. While the
// budget paces failures nothing is forgotten, so that a group waiting its
// turn cannot come back as new.
LoginThrottle::Records::iterator LoginThrottle::FindLive(const std::string& group,
                                                         Clock::time_point now) {
    auto found = records_.find(group);
    if (found == records_.end()) return found;
    const Record& record = found->second;
    if (now >= record.notBefore && now - record.lastFailure >= policy_.forgetAfter &&
        now >= BudgetRoom()) {
        Erase(found);
        return records_.end();
    }
    return found;
}

std::chrono::seconds LoginThrottle::Wait(const std::string& address) {
    const Clock::time_point now = now_();
    auto found = FindLive(ClientGroup(address), now);
    if (found == records_.end()) return std::chrono::seconds(0);
    const Clock::time_point allowed = std::max(found->second.notBefore, BudgetRoom());
    if (now >= allowed) return std::chrono::seconds(0);
    const auto left = allowed - now;
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
    return whole + std::chrono::seconds(whole < left ? 1 : 0);
}

void LoginThrottle::Failed(const std::string& address) {
    const Clock::time_point now = now_();
    budgetTime_ = std::max(budgetTime_, now) + policy_.globalInterval;
    const std::string group = ClientGroup(address);
    auto found = FindLive(group, now);
    if (found == records_.end()) {
        if (records_.size() >= policy_.capacity) Erase(records_.find(byAge_.front()));
        byAge_.push_back(group);
        found = records_.emplace(group, Record{0, now, now, std::prev(byAge_.end())}).first;
    }
    Record& record = found->second;
    ++record.failures;
    record.lastFailure = now;
    record.notBefore = now + DelayAfter(record.failures);
    byAge_.splice(byAge_.end(), byAge_, record.byAge);
}

void LoginThrottle::Succeeded(const std::string& address) {
    auto found = records_.find(ClientGroup(address));
    if (found != records_.end()) Erase(found);
}

}  // namespace farlink::host
