#include "critical_section.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log.h"

namespace {

constexpr int kAuthDebug = LOG_AUTH | LOG_DEBUG;
constexpr int kAuthError = LOG_AUTH | LOG_ERR;

void LogSwitched(const char* source, int line, const char* label, int target) {
    FARLINK_LOG_AT(kAuthDebug, source, line, "WARNING: set%s(%d, %d, %d)", label, -1, target, -1);
}

// Logs a failed switch with the error text of errno and leaves errno at 1,
// the value callers of a failed section see.
void LogSwitchFailed(const char* source, int line, const char* label, int target,
                     const char* step) {
    char message[1024];
    std::memset(message, 0, sizeof(message));
    const char* text = strerror_r(errno, message, sizeof(message));
    FARLINK_LOG_AT(kAuthError, source, line, "ERROR: set%s(%d, %d, %d) [%s]", label, -1, target, -1,
                   text);
    errno = EPERM;
    FARLINK_LOG_AT(kAuthError, source, line, "ERROR: %s", step);
}

bool SwitchGroup(gid_t gid) { return setresgid(-1, gid, -1) == 0; }
bool SwitchUser(uid_t uid) { return setresuid(-1, uid, -1) == 0; }

}  // namespace

SavedIds EnterCriticalSection(const char* source, int line) {
    const SavedIds saved{geteuid(), getegid()};
    if (saved.egid != 0) {
        if (!SwitchGroup(0)) {
            LogSwitchFailed(source, line, "resgid", 0, "ENTERCriticalSection");
            return saved;
        }
        LogSwitched(source, line, "resgid", 0);
    }
    if (saved.euid != 0) {
        if (!SwitchUser(0)) {
            LogSwitchFailed(source, line, "resuid", 0, "ENTERCriticalSection");
            return saved;
        }
        LogSwitched(source, line, "resuid", 0);
    }
    errno = 0;
    return saved;
}

// The user goes back to root first: a process that has already given up its
// user id could no longer set its group.
void LeaveCriticalSection(const char* source, int line, SavedIds saved) {
    const uid_t currentUid = geteuid();
    const gid_t currentGid = getegid();
    const bool userChanged = currentUid != saved.euid;
    if (userChanged) {
        if (!SwitchUser(0)) {
            LogSwitchFailed(source, line, "resuid", 0, "LEAVECriticalSection");
            return;
        }
        LogSwitched(source, line, "resuid", 0);
    } else if (currentGid == saved.egid) {
        errno = 0;
        return;
    }
    if (currentGid != saved.egid) {
        if (!SwitchGroup(saved.egid)) {
            LogSwitchFailed(source, line, "resgid", static_cast<int>(saved.egid),
                            "LEAVECriticalSection");
            return;
        }
        if (saved.egid == 0) LogSwitched(source, line, "resgid", 0);
        if (!userChanged) {
            errno = 0;
            return;
        }
    }
    if (!SwitchUser(saved.euid)) {
        LogSwitchFailed(source, line, "resuid", static_cast<int>(saved.euid),
                        "LEAVECriticalSection");
        return;
    }
    if (saved.euid == 0) LogSwitched(source, line, "resuid", 0);
    errno = 0;
}
