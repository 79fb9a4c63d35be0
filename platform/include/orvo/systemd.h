// Service manager library (liborvosystemd).
#pragma once

#include <string>

// Asks the service manager to reload `unit`: the unit's main process (from
// Paths::kRunDir/<unit>.pid) gets SIGHUP. False when the unit is not running
// or cannot be signalled. Every request is recorded in
// Paths::kSystemdReloadLog.
bool ORVOSystemdReload(const std::string& unit);
