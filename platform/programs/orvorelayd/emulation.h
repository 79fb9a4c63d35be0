// Test controls of the emulated relay daemon, read from emulation.conf on
// every run (and by the running daemon on every reload and heartbeat).
#pragma once

#include <optional>
#include <string>

namespace orvorelayd {

constexpr const char kEmulationConf[] = "/usr/orvo/var/lib/orvorelayd/emulation.conf";

struct EmulationControls {
    std::optional<std::string> statusOutput;  // printed by "--farlink status" instead of on/off
    int startExit = 0;                        // exit status of "--farlink on"
    int stopExit = 0;                         // exit status of "--farlink off"
    int checkFailoverExit = 0;                // non-zero: --check-failover writes nothing
    std::string checkFailoverValue = "false";
    std::optional<std::string> forceStatus;  // words the running daemon reports
    std::optional<std::string> forceError;
    int heartbeatSeconds = 10;
};

// The controls of `path`; defaults for a missing or malformed file and for
// members of the wrong type.
EmulationControls LoadEmulationControls(const char* path = kEmulationConf);

}  // namespace orvorelayd
