#include "utils.h"

#include <orvo/cloudservice.h>
#include <orvo/core.h>
#include <orvo/systemd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kLogSource[] = "utils";

constexpr char kRelaydProgram[] = "/usr/orvo/sbin/orvorelayd";
constexpr char kRelaydService[] = "orvorelayd";
constexpr char kHostInfoFile[] = "/etc/orvoinfo.conf";
constexpr char kFailoverKey[] = "farlink_enable_failover";
constexpr int kApiKeyExpiredAction = 2;

constexpr int kAuthDebug = LOG_AUTH | LOG_DEBUG;
constexpr int kAuthError = LOG_AUTH | LOG_ERR;

void LogSwitched(const char* source, int line, const char* label, int target) {
    FARLINK_LOG_AT(kAuthDebug, source, line, "WARNING: set%s(%d, %d, %d)", label, -1, target,
                   -1);
}

// Logs a failed switch with the error text of errno and leaves errno at 1,
// the value callers of a failed section see.
void LogSwitchFailed(const char* source, int line, const char* label, int target,
                     const char* step) {
    char message[1024];
    std::memset(message, 0, sizeof(message));
    const char* text = strerror_r(errno, message, sizeof(message));
    FARLINK_LOG_AT(kAuthError, source, line, "ERROR: set%s(%d, %d, %d) [%s]", label, -1, target,
                   -1, text);
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

int OrvorelaydServiceStart() {
    int result = 0;
    {
        CriticalSection section(kLogSource, __LINE__);
        if (OLIBCExec(kRelaydProgram, "--farlink", "on", nullptr, nullptr) < 0) {
            FARLINK_LOG("fail to start farlink service");
            result = -1;
        }
    }
    return result;
}

int OrvorelaydServiceStop() {
    int result = 0;
    {
        CriticalSection section(kLogSource, __LINE__);
        if (OLIBCExec(kRelaydProgram, "--farlink", "off", nullptr, nullptr) < 0) {
            FARLINK_LOG("fail to stop farlink service");
            result = -1;
        }
    }
    return result;
}

bool OrvorelaydServiceIsEnabled() {
    char status[32];
    std::memset(status, 0, sizeof(status));
    FILE* stream = OLIBCPopen(kRelaydProgram, "r", "--farlink", "status", nullptr);
    if (stream == nullptr) {
        FARLINK_LOG("OLIBCPopen failed(%s)\n", std::strerror(errno));
        return false;
    }
    if (std::fgets(status, sizeof(status), stream) == nullptr) {
        FARLINK_LOG("Failed to read relay status (%s)\n", status);
    }
    std::fclose(stream);
    // The terminator takes part: only the bare word counts, not "on\n".
    return std::memcmp(status, "on", 3) == 0;
}

int OrvorelaydServiceReload() {
    const bool reloaded = AS_ROOT(ORVOSystemdReload(std::string(kRelaydService)));
    return reloaded ? 0 : -1;
}

int NotifyOrvorelayd() {
    // A stopped daemon reads its files when it next starts.
    if (!OrvorelaydServiceIsEnabled()) return 0;
    if (OrvorelaydServiceReload() == 0) return 0;
    FARLINK_LOG("call OrvorelaydServiceReload() error");
    return -1;
}

bool GetDaemonStatus(std::string& serverId, std::string& status, std::string& error) {
    return AS_ROOT(ORVO::Relay::Daemon::GetStatus(serverId, status, error, nullptr));
}

int UpdateAlias() { return AS_ROOT(ORVO::Relay::Daemon::UpdateAlias()); }

void HandleApiKeyExpired() {
    FARLINK_LOG("api key expired");
    AS_ROOT(ORVOCloudServiceActionHandler(kApiKeyExpiredAction));
}

bool EnableFarlinkSNI(std::string& domain) {
    return AS_ROOT(ORVO::Relay::Utils::EnableRelaySNI(std::string(domain)));
}

bool DisableFarlinkSNI() { return AS_ROOT(ORVO::Relay::Utils::DisableRelaySNI()); }

bool IsFailoverEnable() {
    char value[64];
    std::memset(value, 0, sizeof(value));
    const int found = OLIBCFileGetKeyValue(kHostInfoFile, kFailoverKey, value, sizeof(value), 0);
    if (found < 0) {
        FARLINK_LOG("Fail to get failover enable setting");
        return false;
    }
    if (found > 0) return std::memcmp(value, "true", 5) == 0;
    // The daemon's check writes the key on first need; unlike start and
    // stop, any non-zero outcome of it is a failure.
    if (OLIBCExec(kRelaydProgram, "--check-failover", nullptr, nullptr, nullptr) != 0) {
        FARLINK_LOG("Fail to exec orvorelayd --check-failover");
        return false;
    }
    return OLIBCFileCheckKeyValue(kHostInfoFile, kFailoverKey, "true", 0) == 1;
}

int SwitchRelay(bool enabled) {
    return enabled ? OrvorelaydServiceStart() : OrvorelaydServiceStop();
}
