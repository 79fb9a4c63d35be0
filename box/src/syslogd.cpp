// farlink-syslogd: the box's system log. Serves a unix datagram socket
// (normally /dev/log) and appends every message as one line to a file:
//
//   <PRI>Mmm dd hh:mm:ss ident[pid]: text
//
// that is the datagram exactly as the C library sent it, except that trailing
// newlines and NULs are dropped and a newline inside the message is written
// as the two characters "\n", so that one message is always one line. Each
// line is flushed at once. On SIGTERM or SIGINT it reads whatever is still
// queued on the socket before it exits, so that nothing logged before the
// box stopped is lost.
//
//   farlink-syslogd --socket PATH --output FILE
#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using farlink::UniqueFd;

constexpr size_t kMaxMessage = 64 * 1024;

std::string AsOneLine(const char* data, size_t size) {
    while (size > 0 && (data[size - 1] == '\n' || data[size - 1] == '\0')) --size;
    std::string line;
    line.reserve(size + 1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\n')
            line += "\\n";
        else if (data[i] != '\0')
            line += data[i];
    }
    line += '\n';
    return line;
}

// Copies queued messages to the output; returns false when the socket would
// block (only possible once it has been made non-blocking) or failed.
bool CopyOneMessage(int socket, int output) {
    static std::array<char, kMaxMessage> buffer;
    const ssize_t n = recv(socket, buffer.data(), buffer.size(), 0);
    if (n < 0) return errno == EINTR;
    const std::string line = AsOneLine(buffer.data(), static_cast<size_t>(n));
    if (!farlink::WriteAll(output, line.data(), line.size())) std::perror("farlink-syslogd: write");
    return true;
}

UniqueFd BindLogSocket(const std::string& path) {
    sockaddr_un address{};
    if (path.size() >= sizeof(address.sun_path)) return UniqueFd();
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) return fd;
    unlink(path.c_str());
    // Large enough that a burst of logging is never dropped while we write.
    const int bufferSize = 4 * 1024 * 1024;
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &bufferSize, sizeof(bufferSize));
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(path.c_str(), 0666) != 0)
        return UniqueFd();
    return fd;
}

int StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

void Drain(int socket, int output) {
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
    while (CopyOneMessage(socket, output)) {
    }
}

void Serve(int socket, int stop, int output) {
    std::array<pollfd, 2> watched{{{socket, POLLIN, 0}, {stop, POLLIN, 0}}};
    for (;;) {
        if (poll(watched.data(), watched.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (watched[1].revents != 0) break;
        if (watched[0].revents != 0) CopyOneMessage(socket, output);
    }
    Drain(socket, output);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 || std::strcmp(argv[1], "--socket") != 0 ||
        std::strcmp(argv[3], "--output") != 0) {
        std::fputs("usage: farlink-syslogd --socket PATH --output FILE\n", stderr);
        return 2;
    }
    const std::string socketPath = argv[2];
    const UniqueFd stop(StopSignals());
    const UniqueFd output(open(argv[4], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const UniqueFd socket(BindLogSocket(socketPath));
    if (!stop.Valid() || !output.Valid() || !socket.Valid()) {
        std::fprintf(stderr, "farlink-syslogd: cannot serve %s into %s: %s\n", argv[2], argv[4],
                     std::strerror(errno));
        return 1;
    }
    std::printf("farlink-syslogd: ready\n");
    std::fflush(stdout);
    Serve(socket.Get(), stop.Get(), output.Get());
    unlink(socketPath.c_str());
    return 0;
}
