#include "sessions.h"

#include <openssl/rand.h>

#include <vector>

namespace farlink::host {

namespace {

constexpr std::size_t kIdBytes = 16;

}  // namespace

std::optional<std::string> RandomHex(std::size_t bytes) {
    std::vector<unsigned char> random(bytes);
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) return std::nullopt;
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * bytes);
    for (unsigned char byte : random) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0xf];
    }
    return hex;
}

bool SessionStore::Expired(const Entry& entry, Clock::time_point now) const {
    return now - entry.lastUsed >= limits_.idle || now - entry.created >= limits_.lifetime;
}

void SessionStore::Erase(std::unordered_map<std::string, Entry>::iterator it) {
    byUse_.erase(it->second.byUse);
    live_.erase(it);
}

void SessionStore::MakeRoom(Clock::time_point now) {
    if (live_.size() < limits_.capacity) return;
    for (auto it = live_.begin(); it != live_.end();) {
        auto next = std::next(it);
        if (Expired(it->second, now)) Erase(it);
        it = next;
    }
    while (live_.size() >= limits_.capacity) Erase(live_.find(byUse_.front()));
}

std::optional<Session> SessionStore::Create() {
    std::optional<std::string> id = RandomHex(kIdBytes);
    std::optional<std::string> token = RandomHex(kIdBytes);
    if (!id || !token) return std::nullopt;
    const Clock::time_point now = now_();
    MakeRoom(now);
    byUse_.push_back(*id);
    live_[*id] = Entry{*token, now, now, std::prev(byUse_.end())};
    return Session{*id, *token};
}

std::optional<std::string> SessionStore::TokenOf(const std::string& id) {
    auto found = live_.find(id);
    if (found == live_.end()) return std::nullopt;
    if (Expired(found->second, now_())) {
        Erase(found);
        return std::nullopt;
    }
    return found->second.token;
}

void SessionStore::Touch(const std::string& id) {
    auto found = live_.find(id);
    if (found == live_.end()) return;
    found->second.lastUsed = now_();
    byUse_.splice(byUse_.end(), byUse_, found->second.byUse);
}

bool SessionStore::End(const std::string& id) {
    auto found = live_.find(id);
    if (found == live_.end()) return false;
    Erase(found);
    return true;
}

}  // namespace farlink::host
