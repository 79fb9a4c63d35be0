#include "daemon_control.h"

#include <orvo/cloudservice.h>
#include <orvo/core.h>
#include <orvo/relayd.h>
#include <orvo/systemd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "critical_section.h"
#include "log.h"

namespace {

constexpr const char* kLogSource = kUtilsLogSource;

constexpr char kRelaydProgram[] = "/usr/orvo/sbin/orvorelayd";
constexpr char kRelaydService[] = "orvorelayd";
constexpr char kHostInfoFile[] = "/etc/orvoinfo.conf";
constexpr char kFailoverKey[] = "farlink_enable_failover";
constexpr int kApiKeyExpiredAction = 2;

// Runs `orvorelayd --farlink on|off`: only a program that cannot be run
// fails. Each of on and off opens its own section, so that the log tells
// them apart, and logs its failure before the section's closing trace.
bool ExecRelayd(const char* command) {
    return OLIBCExec(kRelaydProgram, "--farlink", command, nullptr, nullptr) >= 0;
}
}  // namespace
int OrvorelaydServiceStart() {
    CriticalSection section(kLogSource, __LINE__);
    if (ExecRelayd("on")) return 0;
    FARLINK_LOG("fail to start farlink service");
    return -1;
}
int OrvorelaydServiceStop() {
    CriticalSection section(kLogSource, __LINE__);
    if (ExecRelayd("off")) return 0;
    FARLINK_LOG("fail to stop farlink service");
    return -1;
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
