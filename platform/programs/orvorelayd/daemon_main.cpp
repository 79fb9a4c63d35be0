// The emulated relay daemon's background process, started by
// "orvorelayd --farlink on". See docs/relay-library.md.
#include <sys/prctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon_process.h"
#include "relay_daemon.h"

int main(int argc, char** argv) {
    // "--ready-fd N": the descriptor on which the starter waits for the
    // daemon to announce itself.
    int readyFd = -1;
    if (argc == 3 && std::strcmp(argv[1], orvorelayd::kReadyFdFlag) == 0) {
        char* end = nullptr;
        const long fd = std::strtol(argv[2], &end, 10);
        if (*end == '\0' && fd > 2 && fd < 1024) readyFd = static_cast<int>(fd);
    }
    if (argc != 1 && readyFd < 0) {
        std::fprintf(stderr, "usage: orvorelayd-daemon [%s FD]\n", orvorelayd::kReadyFdFlag);
        return 2;
    }
    // The library and the command line know the daemon by the name the
    // kernel reports for it, whatever its program file is called.
    prctl(PR_SET_NAME, ORVO::Relay::internal::kDaemonProcessName, 0, 0, 0);
    return orvorelayd::RunRelayDaemon(readyFd);
}
