// farlink-box-listen: binds one socket and runs a command with it on a known
// descriptor. The box uses it twice: outside, so that the machine's
// 127.0.0.1:PORT leads into the box, and inside, to hand the host its
// listening socket and to keep a name server address that never answers.
//
//   farlink-box-listen [--udp] [--fd N] [--die-with-parent] ADDR:PORT -- COMMAND [ARG...]
//
// The port actually bound (useful with port 0) is passed on in the
// environment as FARLINK_BOX_LISTEN_PORT.
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "socket_address.h"

namespace {

using farlink::UniqueFd;
using farlink::box::BoundPort;
using farlink::box::ParseSocketAddress;

constexpr const char kUsage[] =
    "usage: farlink-box-listen [--udp] [--fd N] [--die-with-parent] ADDR:PORT -- COMMAND "
    "[ARG...]\n";

struct Options {
    bool udp = false;
    int fd = 3;
    bool dieWithParent = false;
    std::string address;
    std::vector<char*> command;
};

bool ParseOptions(int argc, char** argv, Options& options) {
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        const std::string arg = argv[i];
        if (arg == "--udp") {
            options.udp = true;
        } else if (arg == "--die-with-parent") {
            options.dieWithParent = true;
        } else if (arg == "--fd" && i + 1 < argc) {
            options.fd = std::atoi(argv[++i]);
            if (options.fd < 3) return false;
        } else if (options.address.empty() && arg[0] != '-') {
            options.address = arg;
        } else {
            return false;
        }
    }
    for (++i; i < argc; ++i) options.command.push_back(argv[i]);
    options.command.push_back(nullptr);
    return !options.address.empty() && options.command.size() > 1;
}

UniqueFd BindSocket(const Options& options) {
    const auto address = ParseSocketAddress(options.address);
    if (!address) {
        std::fprintf(stderr, "farlink-box-listen: not a numeric ADDR:PORT: %s\n",
                     options.address.c_str());
        return UniqueFd();
    }
    UniqueFd fd(
        socket(address->Family(), (options.udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!fd.Valid() || setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd.Get(), address->Get(), address->length) != 0 ||
        (!options.udp && listen(fd.Get(), SOMAXCONN) != 0)) {
        std::fprintf(stderr, "farlink-box-listen: cannot listen on %s: %s\n",
                     options.address.c_str(), std::strerror(errno));
        return UniqueFd();
    }
    return fd;
}

// The command must not outlive whoever started it: a launcher killed with
// SIGKILL then takes the whole box with it.
bool TieToParent() {
    const pid_t parent = getppid();
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
    return getppid() == parent;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    UniqueFd socket = BindSocket(options);
    if (!socket.Valid()) return 1;
    if (socket.Get() != options.fd) {
        if (dup2(socket.Get(), options.fd) < 0) {
            std::perror("farlink-box-listen: dup2");
            return 1;
        }
    } else {
        fcntl(options.fd, F_SETFD, 0);
    }
    setenv("FARLINK_BOX_LISTEN_PORT", std::to_string(BoundPort(options.fd)).c_str(), 1);
    if (options.dieWithParent && !TieToParent()) return 1;
    execvp(options.command[0], options.command.data());
    std::fprintf(stderr, "farlink-box-listen: cannot run %s: %s\n", options.command[0],
                 std::strerror(errno));
    return 127;
}
