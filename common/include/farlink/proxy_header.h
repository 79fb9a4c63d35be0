// The binary PROXY protocol header (version 2) that a proxy sends ahead of a
// client's bytes, so that the server behind it learns the client's address:
// the box's forwarder writes it, the host reads it from peers it trusts.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>

namespace farlink {

// The header for a TCP connection from `client` to `server` (both IPv4 or
// both IPv6); empty for any other pair.
std::string EncodeProxyHeader(const sockaddr& client, const sockaddr& server);

struct ProxyHeader {
    enum class Status { kIncomplete, kMalformed, kComplete } status = Status::kIncomplete;
    std::size_t length = 0;  // bytes the header takes, when complete
    // The client's address, when the header names one (a proxy's own
    // health check, or a family other than TCP over IPv4/IPv6, names none:
    // the connection's own peer stands).
    sockaddr_storage client{};
    bool hasClient = false;
};

// Reads a header from the first `size` bytes a connection sent.
ProxyHeader ParseProxyHeader(const unsigned char* data, std::size_t size);

}  // namespace farlink
