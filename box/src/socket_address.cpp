#include "socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace farlink::box {

namespace {

std::optional<int> ParsePort(const std::string& text) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    const int port = std::atoi(text.c_str());
    if (port > 65535) return std::nullopt;
    return port;
}

}  // namespace

std::optional<SocketAddress> ParseSocketAddress(const std::string& text) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    const auto port = ParsePort(text.substr(colon + 1));
    if (!port) return std::nullopt;
    std::string host = text.substr(0, colon);

    SocketAddress address;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
        if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) != 1) return std::nullopt;
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(*port));
        address.length = sizeof(sockaddr_in6);
        return address;
    }
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) != 1) return std::nullopt;
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(*port));
    address.length = sizeof(sockaddr_in);
    return address;
}

int BoundPort(int fd) {
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return -1;
    if (storage.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&storage)->sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
}

}  // namespace farlink::box
