// Login sessions: random ids handed out by a successful login. The store is
// bounded; the oldest session goes when a new one would overflow it.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>

namespace farlink::host {

class SessionStore {
public:
    explicit SessionStore(std::size_t capacity = 1024) : capacity_(capacity) {}

    // A new 128-bit id as 32 hex digits; nullopt if no randomness was had.
    std::optional<std::string> Create();
    bool IsValid(const std::string& id) const;

private:
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::deque<std::string> byAge_;
    std::unordered_set<std::string> live_;
};

}  // namespace farlink::host
