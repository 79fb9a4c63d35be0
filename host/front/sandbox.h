// What the front may still do once it serves: the process that reads the
// network holds no capability it could regain, cannot gain rights through a
// program it runs, and the kernel lets it make only the system calls that
// serving needs (a filter made with libseccomp). Anything else, such as
// running a program, tracing a process or opening a file for writing, ends
// the front; the supervisor starts a new one.
#pragma once

#include <string>

namespace farlink::host {

// While still root, before the ids are dropped: empties the capability
// bounding set (where CAP_SETPCAP allows) and sets no_new_privs. Throws
// StartupError on failure.
void RenouncePrivileges();

// Once everything the front opens at start is open: the file system is
// closed to it but for reading beneath `readableRoot` (the admin page's
// files; empty: nothing), with Landlock, where the kernel has it. Files it
// already holds (its logs) stay usable. False when the kernel has no
// Landlock or in a sanitizer build (whose leak check reads /proc); throws
// StartupError when Landlock fails otherwise.
bool ConfineFiles(const std::string& readableRoot);

// Once everything the front opens at start is open, before its first read
// from the network. Throws StartupError on failure. In a build with the
// address or thread sanitizer, whose run-time needs more (its leak check
// traces the process), no filter is installed and it returns false.
bool ConfineSystemCalls();

}  // namespace farlink::host
