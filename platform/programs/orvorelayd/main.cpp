// Emulated relay daemon of the platform kit. See docs/relay-library.md.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "control.h"
#include "emulation.h"

namespace {

constexpr int kUsageExit = 2;

int Usage() {
    std::fprintf(stderr,
                 "usage: orvorelayd --farlink on|off|status\n"
                 "       orvorelayd --check-failover\n");
    return kUsageExit;
}

bool Is(const char* arg, const char* word) { return std::strcmp(arg, word) == 0; }

// The web API server runs with root as its real ids and an unprivileged user
// as its effective ones, and some of its calls of this program (the
// fail-over check) are made without raising them. Like the system program it
// stands in for, this one works as root whenever its real ids allow it.
void TakeBackRootWhenReal() {
    if (getuid() != 0) return;
    if (geteuid() != 0 && setresuid(-1, 0, -1) != 0) return;
    if (getgid() == 0 && getegid() != 0) setresgid(-1, 0, -1);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace orvorelayd;
    TakeBackRootWhenReal();
    if (argc == 2 && Is(argv[1], "--check-failover")) {
        return CheckFailover(LoadEmulationControls());
    }
    if (argc != 3 || !Is(argv[1], "--farlink")) return Usage();
    const char* command = argv[2];
    if (Is(command, "on")) return SwitchOn(LoadEmulationControls());
    if (Is(command, "off")) return SwitchOff(LoadEmulationControls());
    if (Is(command, "status")) return PrintStatus(LoadEmulationControls());
    return Usage();
}
