// Numeric socket addresses as the box's programs take them on their command
// lines: "127.0.0.1:8080" or "[fd00::1]:53".
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

namespace farlink::box {

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    int Family() const { return storage.ss_family; }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// Empty when the text is not a numeric address with a port in 0..65535.
std::optional<SocketAddress> ParseSocketAddress(const std::string& text);

// The port a bound socket ended up on (useful after binding port 0).
int BoundPort(int fd);

}  // namespace farlink::box
