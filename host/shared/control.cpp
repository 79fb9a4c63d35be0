#include "control.h"

#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

namespace farlink::host {

bool SendControl(int socket, const ControlMessage& message, int passFd) {
    iovec data{const_cast<ControlMessage*>(&message), sizeof message};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))] = {};
    if (passFd >= 0) {
        header.msg_control = space;
        header.msg_controllen = sizeof space;
        cmsghdr* rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(rights), &passFd, sizeof(int));
    }
    ssize_t sent;
    do {
        sent = sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(sizeof message);
}

std::optional<ControlMessage> ReceiveControl(int socket, UniqueFd& passed) {
    ControlMessage message;
    iovec data{&message, sizeof message};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))] = {};
    header.msg_control = space;
    header.msg_controllen = sizeof space;
    ssize_t got;
    do {
        got = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
            passed.Reset(fd);
        }
    }
    if (got != static_cast<ssize_t>(sizeof message) || (header.msg_flags & MSG_TRUNC)) {
        return std::nullopt;
    }
    return message;
}

std::string DescribeEnd(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) {
        const char* name = sigabbrev_np(WTERMSIG(waitStatus));
        return name ? std::string("SIG") + name : "signal=" + std::to_string(WTERMSIG(waitStatus));
    }
    return "exit=" + std::to_string(WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1);
}

}  // namespace farlink::host
