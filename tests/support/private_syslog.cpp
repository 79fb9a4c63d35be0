#include "private_syslog.h"

#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "private_root.h"

namespace farlink_test {
namespace {

constexpr char kLogSocket[] = "/dev/log";

std::string Failure(const std::string& step) { return step + ": " + std::strerror(errno); }

// The /dev tmpfs is made once per process and kept; empty or what failed.
std::string PreparePrivateDev() {
    static bool prepared = false;
    std::string failure;
    if (!EnterPrivateRoot(&failure)) return "private root: " + failure;
    if (prepared) return {};
    if (::mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0)
        return Failure("tmpfs on /dev");
    const std::pair<const char*, unsigned> devices[] = {
        {"/dev/null", 3}, {"/dev/zero", 5}, {"/dev/random", 8}, {"/dev/urandom", 9}};
    for (const auto& [path, minor] : devices) {
        if (::mknod(path, S_IFCHR | 0666, makedev(1, minor)) != 0 || ::chmod(path, 0666) != 0)
            return Failure(std::string("mknod ") + path);
    }
    if (::symlink("/proc/self/fd", "/dev/fd") != 0) return Failure("symlink /dev/fd");
    prepared = true;
    return {};
}

}  // namespace

PrivateSyslog::PrivateSyslog() {
    ::closelog();
    error_ = PreparePrivateDev();
    if (!error_.empty()) return;
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kLogSocket);
    ::unlink(kLogSocket);
    if (socket_ < 0 ||
        ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(kLogSocket, 0666) != 0)
        error_ = Failure(std::string("bind ") + kLogSocket);
}

PrivateSyslog::~PrivateSyslog() {
    if (socket_ >= 0) {
        ::close(socket_);
        ::unlink(kLogSocket);
    }
    ::closelog();
}

std::vector<SyslogRecord> PrivateSyslog::Records(std::size_t count,
                                                 std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buffer[1 << 16];
    while (Ok()) {
        const ssize_t got = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
            // Priority between '<' and '>'; the message follows the 16
            // characters of the time stamp and the tag's ": ".
            const std::string raw(buffer, static_cast<std::size_t>(got));
            const std::size_t close = raw.find('>');
            const std::size_t separator = raw.find(": ", close + 17);
            if (raw[0] == '<' && close != std::string::npos && separator != std::string::npos)
                records_.emplace_back(std::atoi(raw.c_str() + 1), raw.substr(separator + 2));
            continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready{socket_, POLLIN, 0};
        if (records_.size() >= count || left.count() <= 0 ||
            ::poll(&ready, 1, static_cast<int>(left.count())) <= 0)
            break;
    }
    return records_;
}

}  // namespace farlink_test
