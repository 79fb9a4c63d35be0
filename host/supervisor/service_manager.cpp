#include "service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace farlink::host {

namespace {
constexpr char kNotifySocket[] = "NOTIFY_SOCKET";
}

ServiceManager::ServiceManager() {
    if (const char* socket = std::getenv(kNotifySocket)) socket_ = socket;
    unsetenv(kNotifySocket);
}

void ServiceManager::Send(const char* state) const {
    if (socket_.empty()) return;
    // sd_notify reads the socket from the environment; it is there only for
    // the call, and unset again by it.
    setenv(kNotifySocket, socket_.c_str(), 1);
    const int sent = sd_notify(1, state);
    if (sent < 0) {
        std::fprintf(stderr, "farlink-host: cannot notify the service manager: %s\n",
                     std::strerror(-sent));
    }
}

}  // namespace farlink::host
