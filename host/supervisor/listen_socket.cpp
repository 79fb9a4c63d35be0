#include "listen_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "startup_error.h"

namespace farlink::host {

namespace {

// As deep as the system allows: a burst of connections then waits in the
// kernel for the front, which sheds what it must, instead of crowding out a
// real client's connection attempt.
constexpr int kBacklog = SOMAXCONN;

struct AddrInfoDeleter {
    void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

std::string ErrnoText() { return std::strerror(errno); }

std::string LocalAddress(int fd) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        throw StartupError("getsockname: " + ErrnoText());
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(storage);
        inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
        return std::string(text) + ":" + std::to_string(ntohs(in.sin_port));
    }
    if (storage.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(storage);
        inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(in6.sin6_port));
    }
    throw StartupError("the listening socket is not an IPv4 or IPv6 socket");
}

void MakeNonBlockingCloseOnExec(int fd) {
    int statusFlags = fcntl(fd, F_GETFL);
    int fdFlags = fcntl(fd, F_GETFD);
    if (statusFlags < 0 || fdFlags < 0 || fcntl(fd, F_SETFL, statusFlags | O_NONBLOCK) != 0 ||
        fcntl(fd, F_SETFD, fdFlags | FD_CLOEXEC) != 0) {
        throw StartupError("cannot set up the listening socket: " + ErrnoText());
    }
}

// "ADDR:PORT" or "[ADDR6]:PORT"; numeric only, as the launcher passes it.
std::pair<std::string, std::string> SplitHostPort(const std::string& hostPort) {
    const std::string bad = "--listen wants ADDR:PORT, not '" + hostPort + "'";
    std::size_t colon = hostPort.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == hostPort.size()) {
        throw StartupError(bad);
    }
    std::string host = hostPort.substr(0, colon);
    std::string port = hostPort.substr(colon + 1);
    if (host.front() == '[') {
        if (host.size() < 3 || host.back() != ']') throw StartupError(bad);
        host = host.substr(1, host.size() - 2);
    }
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(port) > 65535) {
        throw StartupError(bad);
    }
    return {host, port};
}

}  // namespace

ListenSocket BindListenSocket(const std::string& hostPort) {
    auto [host, port] = SplitHostPort(hostPort);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
        throw StartupError("--listen " + hostPort + ": " + gai_strerror(error));
    }
    std::unique_ptr<addrinfo, AddrInfoDeleter> info(found);

    UniqueFd fd(socket(info->ai_family, info->ai_socktype | SOCK_CLOEXEC, info->ai_protocol));
    if (!fd) throw StartupError("socket: " + ErrnoText());
    int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd.Get(), info->ai_addr, info->ai_addrlen) != 0) {
        throw StartupError("cannot bind " + hostPort + ": " + ErrnoText());
    }
    if (listen(fd.Get(), kBacklog) != 0) throw StartupError("listen: " + ErrnoText());
    MakeNonBlockingCloseOnExec(fd.Get());
    std::string address = LocalAddress(fd.Get());
    return {std::move(fd), std::move(address)};
}

ListenSocket AdoptListenSocket(int fd) {
    const std::string which = "--listen-fd " + std::to_string(fd);
    int type = 0;
    int listening = 0;
    socklen_t length = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0) {
        throw StartupError(which + " is not a socket: " + ErrnoText());
    }
    length = sizeof listening;
    if (type != SOCK_STREAM ||
        getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) != 0 || !listening) {
        throw StartupError(which + " is not a listening TCP socket");
    }
    UniqueFd owned(fd);
    MakeNonBlockingCloseOnExec(fd);
    std::string address = LocalAddress(fd);
    return {std::move(owned), std::move(address)};
}

}  // namespace farlink::host
