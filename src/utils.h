// Host utilities of the module: daemon control, configuration files, control
// server access and account lookup. Every function logs its own failures.
#pragma once

#include <orvo/relayd.h>

#include <string>

#include "critical_section.h"
#include "log.h"

// Relay daemon control. Start, stop and reload return 0 or -1.
int OrvorelaydServiceStart();
int OrvorelaydServiceStop();
bool OrvorelaydServiceIsEnabled();
int OrvorelaydServiceReload();
// Makes a running daemon re-read its files; 0 also when it is not running.
int NotifyOrvorelayd();
bool GetDaemonStatus(std::string& serverId, std::string& status, std::string& error);
int UpdateAlias();
void HandleApiKeyExpired();
bool EnableFarlinkSNI(std::string& domain);
bool DisableFarlinkSNI();
bool IsFailoverEnable();

// Starts the daemon when `enabled`, stops it otherwise; 0 or -1.
int SwitchRelay(bool enabled);
