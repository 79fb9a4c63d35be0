// Which names a request may give in its Host header. A browser tricked by
// DNS rebinding sends the attacker's name; answering only the names this
// host is reached by keeps such pages out even when they reach the port.
#pragma once

#include <string>
#include <vector>

namespace farlink::host {

class HostNames {
public:
    // `listenAddress` is the numeric address the host listens on (a
    // wildcard adds nothing); `extra` are names given with an option.
    HostNames(const std::string& listenAddress, const std::vector<std::string>& extra);

    // Loopback names and addresses, the listen address and the extra names
    // are allowed with any port (the box forwards another one). A request
    // without a Host header (HTTP/1.0 tools) names no host and is allowed:
    // browsers always send one.
    bool Allows(const std::string& hostHeader) const;

private:
    std::vector<std::string> names_;  // lower case, no trailing dot
};

// The name part of a Host header, lower case, without port or trailing dot;
// "" when it is malformed.
std::string HostNameOf(const std::string& hostHeader);

}  // namespace farlink::host
