// Control of the relay daemon: its command line (on, off, status,
// --check-failover), reloads through the service manager, and the relay
// library's calls on the running daemon. Functions that return 0/-1 or
// bool log their own failures; GetDaemonStatus, UpdateAlias and the SNI
// switches hand back the library's result and leave the logging to the
// caller.
#pragma once

#include <string>

// Start, stop and reload: 0 or -1.
int OrvorelaydServiceStart();
int OrvorelaydServiceStop();
bool OrvorelaydServiceIsEnabled();
int OrvorelaydServiceReload();
// Makes a running daemon re-read its files; 0 also when it is not running.
int NotifyOrvorelayd();
bool GetDaemonStatus(std::string& serverId, std::string& status, std::string& error);
int UpdateAlias();
// Tells the cloud service; logs that it did.
void HandleApiKeyExpired();
bool EnableFarlinkSNI(std::string& domain);
bool DisableFarlinkSNI();
bool IsFailoverEnable();

// Starts the daemon when `enabled`, stops it otherwise; 0 or -1.
int SwitchRelay(bool enabled);
