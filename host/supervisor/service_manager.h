// Tells the service manager (systemd, Type=notify) how the host is doing.
// Nothing is sent when the host was not started with NOTIFY_SOCKET.
#pragma once

#include <string>

namespace farlink::host {

class ServiceManager {
public:
    // Takes NOTIFY_SOCKET out of the environment, so that the module and
    // the programs it starts do not speak for the host.
    ServiceManager();

    void Ready() const { Send("READY=1"); }
    void Stopping() const { Send("STOPPING=1"); }

private:
    void Send(const char* state) const;

    std::string socket_;
};

}  // namespace farlink::host
