// The TCP socket the server accepts on: bound here, or inherited already
// bound and listening from a launcher that sits in another network namespace.
#pragma once

#include <farlink/unique_fd.h>

#include <string>

namespace farlink::host {

struct ListenSocket {
    UniqueFd fd;          // non-blocking, close-on-exec
    std::string address;  // "127.0.0.1:8080" or "[::1]:8080", the real port
};

// Each throws StartupError with the reason.
ListenSocket BindListenSocket(const std::string& hostPort);
ListenSocket AdoptListenSocket(int fd);

}  // namespace farlink::host
