// The module's host utilities, one concern per file, all logging under the
// source name "utils" (the log source is a name, not a file). Handlers
// include this one header.
#pragma once

#include "account.h"
#include "config_files.h"
#include "control_server.h"
#include "critical_section.h"
#include "daemon_control.h"
#include "log.h"
#include "name_resolution.h"
