// Login sessions: random ids handed out by a successful login, each with an
// anti-forgery token of its own. A session ends at logout, when it has been
// idle for `idle`, when it is `lifetime` old however busy, or when the store
// is full and a newer login needs its place: expired sessions go first, then
// the one used least recently. Making room takes a login, that is, the
// password, so nobody can end sessions without it.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>

namespace farlink::host {

struct SessionLimits {
    std::chrono::seconds idle{1800};
    std::chrono::seconds lifetime{43200};
    std::size_t capacity = 1024;
};

struct Session {
    std::string id;     // 128 random bits as 32 lowercase hex digits
    std::string token;  // the anti-forgery token, likewise
};

// `bytes` random bytes as lowercase hex; nullopt if no randomness was had.
std::optional<std::string> RandomHex(std::size_t bytes);

class SessionStore {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    explicit SessionStore(SessionLimits limits = {}, Now now = Clock::now)
        : limits_(limits), now_(std::move(now)) {}

    // Nullopt if no randomness was had.
    std::optional<Session> Create();
    // The token of the live session `id`, without counting as a use.
    std::optional<std::string> TokenOf(const std::string& id);
    // The session was used now: its idle time starts again.
    void Touch(const std::string& id);
    // Logout; false when there was no such live session.
    bool End(const std::string& id);

private:
    struct Entry {
        std::string token;
        Clock::time_point created;
        Clock::time_point lastUsed;
        std::list<std::string>::iterator byUse;
    };

    bool Expired(const Entry& entry, Clock::time_point now) const;
    void Erase(std::unordered_map<std::string, Entry>::iterator it);
    void MakeRoom(Clock::time_point now);

    const SessionLimits limits_;
    const Now now_;
    std::unordered_map<std::string, Entry> live_;
    std::list<std::string> byUse_;  // least recently used first
};

}  // namespace farlink::host
