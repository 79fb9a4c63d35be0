// Core library (liborvocore): running programs and reading key-value files.
//
// Programs are always started directly from an argument vector (never
// through a shell) with posix_spawn, so the cost of a run does not grow with
// the size of the calling process. No run leaves a zombie behind.
#pragma once

#include <cstdio>

// Flag bits of OLIBCExecl.
constexpr int OLIBC_EXEC_NOWAIT = 0x01;  // return as soon as the program is started
constexpr int OLIBC_EXEC_DETACH = 0x40;  // new session, standard streams on /dev/null

// Runs `path` with up to four arguments (the list ends at the first null)
// and waits for it. Returns -1 when the program could not be run, otherwise
// its exit status (128 + signal number when a signal ended it).
int OLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);

// Runs `path` with the null-terminated argument list that follows `flags`.
// Without OLIBC_EXEC_NOWAIT it waits and returns as OLIBCExec does; with it,
// it returns 0 once the program has been started (it is reaped in the
// background) and -1 when it could not be started.
int OLIBCExecl(const char* path, int flags, ...);

// Starts `path` with the null-terminated argument list that follows `mode`
// and returns a stream on its standard output (mode "r") or standard input
// (mode "w"). Null with errno set on failure. The stream may be closed with
// plain fclose: the child is reaped in the background.
FILE* OLIBCPopen(const char* path, const char* mode, ...);

// Key-value files hold lines `key="value"` (or `key=value`); blank lines and
// lines starting with '#' are ignored; the last line for a key wins.
// Returns -1 when the file cannot be read or the arguments are unusable,
// 0 when the key is absent, 1 when it was found; the value is copied into
// `buffer` (at most size-1 bytes, always terminated).
int OLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int flags);

// Returns 1 when `file` holds `key` with exactly `value`, 0 when it does not,
// -1 when the file cannot be read.
int OLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int flags);

// Copies the relay portal domain (the "portal_domain" member of the
// "server_control" section of the relay daemon's configuration) into
// `buffer`. Returns 0 on success, -1 when it cannot be had.
int OLIBRelaydGetPortalDomain(char* buffer, int size);
