// The background relay daemon: keeps in touch with the register site and
// publishes its state for the relay library.
#pragma once

namespace orvorelayd {

// The daemon program's option naming the descriptor it announces itself on.
constexpr const char kReadyFdFlag[] = "--ready-fd";

// Runs until SIGTERM or SIGINT; SIGHUP reloads the configuration, SIGUSR1
// refreshes the alias. Once its state and pid file are written it writes
// one byte to `readyFd` (when not -1) and closes it. Returns the process
// exit status.
int RunRelayDaemon(int readyFd);

}  // namespace orvorelayd
