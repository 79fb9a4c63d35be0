#include "daemon_process.h"

#include <orvo/paths.h>
#include <signal.h>

#include <fstream>
#include <string>

namespace ORVO {
namespace Relay {
namespace internal {

bool IsDaemonProcess(pid_t pid) {
    if (pid <= 0) return false;
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) return false;
    // "<pid> (<name>) <state> ...": the name may hold blanks and parentheses,
    // so it ends at the last ')'.
    const auto open = stat.find('(');
    const auto close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 2 >= stat.size()) {
        return false;
    }
    const std::string name = stat.substr(open + 1, close - open - 1);
    const char state = stat[close + 2];
    return name == kDaemonProcessName && state != 'Z' && state != 'X';
}

pid_t ReadDaemonPidFile() {
    std::ifstream in(Paths::kRelaydPidFile);
    long pid = 0;
    if (!(in >> pid) || pid <= 0 || pid > 0x7fffffffL) return 0;
    return static_cast<pid_t>(pid);
}

pid_t RunningDaemonPid() {
    const pid_t pid = ReadDaemonPidFile();
    return IsDaemonProcess(pid) ? pid : 0;
}

bool SignalRunningDaemon(int signal) {
    const pid_t pid = RunningDaemonPid();
    return pid != 0 && kill(pid, signal) == 0;
}

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
