#include "sessions.h"

#include <openssl/rand.h>

#include <array>
#include <cstdio>

namespace farlink::host {

std::optional<std::string> SessionStore::Create() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) return std::nullopt;
    std::string id;
    for (unsigned char byte : bytes) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", byte);
        id += hex;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    if (byAge_.size() == capacity_) {
        live_.erase(byAge_.front());
        byAge_.pop_front();
    }
    byAge_.push_back(id);
    live_.insert(id);
    return id;
}

bool SessionStore::IsValid(const std::string& id) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return live_.count(id) != 0;
}

}  // namespace farlink::host
