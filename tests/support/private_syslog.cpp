#include "private_syslog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "private_root.h"

namespace farlink_test {
namespace {

constexpr char kLogSocket[] = "/dev/log";

std::string Failure(const std::string& step) { return step + ": " + std::strerror(errno); }

// Returns an empty string on success, otherwise what failed.
std::string MakeDevice(const char* path, unsigned minor) {
    if (::mknod(path, S_IFCHR | 0666, makedev(1, minor)) != 0 || ::chmod(path, 0666) != 0) {
        return Failure(std::string("mknod ") + path);
    }
    return {};
}

std::string SetUpPrivateDev() {
    if (::mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        return Failure("tmpfs on /dev");
    }
    const std::pair<const char*, unsigned> devices[] = {
        {"/dev/null", 3}, {"/dev/zero", 5}, {"/dev/random", 8}, {"/dev/urandom", 9}};
    for (const auto& device : devices) {
        std::string failure = MakeDevice(device.first, device.second);
        if (!failure.empty()) {
            return failure;
        }
    }
    const std::pair<const char*, const char*> links[] = {{"/proc/self/fd", "/dev/fd"},
                                                         {"/proc/self/fd/0", "/dev/stdin"},
                                                         {"/proc/self/fd/1", "/dev/stdout"},
                                                         {"/proc/self/fd/2", "/dev/stderr"}};
    for (const auto& link : links) {
        if (::symlink(link.first, link.second) != 0) {
            return Failure(std::string("symlink ") + link.second);
        }
    }
    if (::mkdir("/dev/shm", 01777) != 0 ||
        ::mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
        return Failure("/dev/shm");
    }
    return {};
}

// The /dev tmpfs is made once per process and kept.
std::string PreparePrivateDev() {
    static bool prepared = false;
    std::string failure;
    if (!EnterPrivateRoot(&failure)) {
        return "private root: " + failure;
    }
    if (!prepared) {
        failure = SetUpPrivateDev();
        prepared = failure.empty();
    }
    return failure;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// "Mmm dd hh:mm:ss " as glibc writes it.
bool IsTimestamp(const std::string& text, std::size_t at) {
    if (text.size() < at + 16) {
        return false;
    }
    const char* t = text.c_str() + at;
    return t[3] == ' ' && t[6] == ' ' && t[9] == ':' && t[12] == ':' && t[15] == ' ' &&
           IsDigit(t[5]) && IsDigit(t[7]) && IsDigit(t[8]);
}

}  // namespace

bool ParseSyslogLine(const std::string& raw, SyslogRecord& record) {
    if (raw.empty() || raw[0] != '<') {
        return false;
    }
    std::size_t close = raw.find('>');
    if (close == std::string::npos || close < 2 || close > 4) {
        return false;
    }
    int priority = 0;
    for (std::size_t i = 1; i < close; ++i) {
        if (!IsDigit(raw[i])) {
            return false;
        }
        priority = priority * 10 + (raw[i] - '0');
    }
    std::size_t tagStart = close + 1 + 16;
    if (!IsTimestamp(raw, close + 1)) {
        return false;
    }
    std::size_t separator = raw.find(": ", tagStart);
    if (separator == std::string::npos) {
        return false;
    }
    record.priority = priority;
    record.tag = raw.substr(tagStart, separator - tagStart);
    record.message = raw.substr(separator + 2);
    return true;
}

struct PrivateSyslog::State {
    std::string error;
    int socket = -1;
    int wakeRead = -1;
    int wakeWrite = -1;
    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    mutable std::vector<std::string> lines;
    std::thread receiver;

    ~State() {
        for (int fd : {socket, wakeRead, wakeWrite}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    bool Open();
    void Receive();
    // Moves every queued datagram into `lines`; the caller holds `mutex`,
    // which keeps the lines in the order they were sent.
    void DrainLocked() const;
};

bool PrivateSyslog::State::Open() {
    error = PreparePrivateDev();
    if (!error.empty()) {
        return false;
    }
    socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int wake[2];
    if (socket < 0 || ::pipe2(wake, O_CLOEXEC) != 0) {
        error = Failure("socket");
        return false;
    }
    wakeRead = wake[0];
    wakeWrite = wake[1];
    int bufferSize = 1 << 20;
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kLogSocket);
    ::unlink(kLogSocket);
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(kLogSocket, 0666) != 0) {
        error = Failure(std::string("bind ") + kLogSocket);
        return false;
    }
    receiver = std::thread([this] { Receive(); });
    return true;
}

void PrivateSyslog::State::Receive() {
    for (;;) {
        pollfd fds[2] = {{socket, POLLIN, 0}, {wakeRead, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        if (fds[0].revents != 0) {
            std::lock_guard<std::mutex> lock(mutex);
            DrainLocked();
        }
    }
}

void PrivateSyslog::State::DrainLocked() const {
    std::vector<char> buffer(1 << 16);
    bool any = false;
    for (;;) {
        ssize_t got = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (got < 0) {
            break;
        }
        lines.emplace_back(buffer.data(), static_cast<std::size_t>(got));
        any = true;
    }
    if (any) {
        arrived.notify_all();
    }
}

PrivateSyslog::PrivateSyslog() : state_(std::make_unique<State>()) {
    ::closelog();
    state_->Open();
}

PrivateSyslog::~PrivateSyslog() {
    if (state_->receiver.joinable()) {
        char wake = 0;
        ssize_t written = ::write(state_->wakeWrite, &wake, 1);
        (void)written;
        state_->receiver.join();
    }
    if (state_->socket >= 0) {
        ::unlink(kLogSocket);
    }
    ::closelog();
}

bool PrivateSyslog::Ok() const { return state_->error.empty(); }

const std::string& PrivateSyslog::Error() const { return state_->error; }

std::vector<std::string> PrivateSyslog::Lines() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (Ok()) {
        state_->DrainLocked();
    }
    return state_->lines;
}

std::vector<SyslogRecord> PrivateSyslog::Records() const {
    std::vector<SyslogRecord> records;
    for (const std::string& line : Lines()) {
        SyslogRecord record;
        if (ParseSyslogLine(line, record)) {
            records.push_back(std::move(record));
        }
    }
    return records;
}

bool PrivateSyslog::WaitForLines(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return Ok() && state_->arrived.wait_for(lock, timeout, [this, count] {
        state_->DrainLocked();
        return state_->lines.size() >= count;
    });
}

void PrivateSyslog::Clear() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (Ok()) {
        state_->DrainLocked();
    }
    state_->lines.clear();
}

}  // namespace farlink_test
