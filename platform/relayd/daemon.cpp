// Access to the running relay daemon, and relay SNI.
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <signal.h>

#include <cctype>

#include "daemon_process.h"
#include "json_file.h"
#include "relayd_conf_internal.h"

namespace ORVO {
namespace Relay {
namespace {

constexpr const char kNotRunning[] = "not_running";

bool IsHostLabel(const std::string& label) {
    if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-') {
        return false;
    }
    for (const unsigned char c : label) {
        if (!std::isalnum(c) && c != '-') return false;
    }
    return true;
}

// A host name as DNS takes it: dot-separated labels of letters, digits and
// inner hyphens, at most 253 bytes; one trailing dot is allowed.
bool IsPlausibleDomain(std::string domain) {
    if (!domain.empty() && domain.back() == '.') domain.pop_back();
    if (domain.empty() || domain.size() > 253) return false;
    size_t start = 0;
    while (true) {
        const auto dot = domain.find('.', start);
        if (!IsHostLabel(domain.substr(start, dot - start))) return false;
        if (dot == std::string::npos) return true;
        start = dot + 1;
    }
}

// The daemon re-reads sni.conf on a reload; a stopped one reads it at start.
bool WriteSniConf(bool enabled, const std::string& domain) {
    Json::Value sni(Json::objectValue);
    sni["enabled"] = enabled;
    sni["domain"] = domain;
    if (!internal::WriteJsonFile(Paths::kSniConf, sni)) return false;
    internal::SignalRunningDaemon(SIGHUP);
    return true;
}

}  // namespace

bool Daemon::GetStatus(std::string& serverId, std::string& status, std::string& error,
                       const char* confPath) {
    if (internal::RunningDaemonPid() == 0) {
        status = kNotRunning;
        error.clear();
        Json::Value conf;
        serverId.clear();
        if (internal::ReadJsonFile(internal::RelaydConfPath(confPath), conf)) {
            internal::TakeString(conf, internal::kServerIdKey, serverId);
        }
        return true;
    }
    Json::Value state;
    if (!internal::ReadJsonFile(Paths::kRelaydStatus, state) || !state.isObject()) return false;
    internal::TakeString(state, internal::kStatusServerId, serverId);
    internal::TakeString(state, internal::kStatusState, status);
    internal::TakeString(state, internal::kStatusError, error);
    return true;
}

int Daemon::UpdateAlias() { return internal::SignalRunningDaemon(SIGUSR1) ? 0 : -1; }

bool Utils::EnableRelaySNI(std::string domain) {
    return IsPlausibleDomain(domain) && WriteSniConf(true, domain);
}

bool Utils::DisableRelaySNI() { return WriteSniConf(false, std::string()); }

}  // namespace Relay
}  // namespace ORVO
