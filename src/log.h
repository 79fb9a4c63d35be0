// Logging of the module: every line goes to the system log as
// "<source>:<line> <message>", where <source> is the log name of the file
// that logs (each source file defines kLogSource) and <line> its line.
#pragma once

#include <syslog.h>

// The host utilities log under this one name, whichever file they live in.
inline constexpr char kUtilsLogSource[] = "utils";

// Ordinary lines, informational ones included, go out at error priority with
// the default facility: the box's log filters keep nothing below it.
#define FARLINK_LOG(fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, kLogSource, __LINE__, ##__VA_ARGS__)

// Lines of the privileged section carry the caller's source and line, so
// they take them as arguments instead of from the logging file.
#define FARLINK_LOG_AT(priority, source, line, fmt, ...) \
    syslog(priority, "%s:%d " fmt, source, line, ##__VA_ARGS__)
