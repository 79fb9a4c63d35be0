// The background relay daemon: keeps in touch with the register site and
// publishes its state for the relay library.
#pragma once

namespace orvorelayd {

// Runs until SIGTERM or SIGINT; SIGHUP reloads the configuration, SIGUSR1
// refreshes the alias. Returns the process exit status.
int RunRelayDaemon();

}  // namespace orvorelayd
