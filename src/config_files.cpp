#include "config_files.h"

#include <json/reader.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include "api_table.h"
#include "critical_section.h"
#include "daemon_control.h"
#include "log.h"

namespace {

constexpr const char* kLogSource = kUtilsLogSource;

// Leaving a privileged section clears errno, so the rename's own is kept for
// the log line.
bool MoveFile(const std::string& from, const std::string& to, int& error) {
    if (std::rename(from.c_str(), to.c_str()) == 0) return true;
    error = errno;
    return false;
}

}  // namespace

bool ReadJsonFile(const std::string& path, Json::Value& value) {
    value = Json::Value();
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) return false;
    Json::Reader reader;
    bool parsed = false;
    try {
        parsed = reader.parse(in, value, false);
    } catch (const std::ios_base::failure&) {
        // A read error (a directory, a failing disk): unreadable, not damaged.
        value = Json::Value();
        return false;
    } catch (const Json::Exception&) {  // nested past the reader's limit: it does not parse
    }
    if (!parsed) {
        // No half-parsed document reaches a caller that ignores the result.
        value = Json::Value();
        FARLINK_LOG("bad json format [%s]", path.c_str());
        RenameBadConfig(path);
        return false;
    }
    return true;
}

bool RenameBadConfig(const std::string& path) {
    const std::string badPath = path + ".bad";
    int renameError = 0;
    if (AS_ROOT(MoveFile(path, badPath, renameError))) return true;
    errno = renameError;
    FARLINK_LOG("rename %s to .bad failed. %m", path.c_str());
    // A damaged file must not stay where the next read would find it.
    AS_ROOT(unlink(path.c_str()));
    return false;
}

bool WriteJsonFile(const char* path, Json::Value value) {
    return AS_ROOT(ORVO::Relay::RelaydConf::WriteJsonFile(path, value));
}

bool WriteConfig(ORVO::Relay::Config* config) {
    if (config == nullptr) return false;
    return AS_ROOT(config->Save());
}

bool SetConfig(Json::Value document, const std::string& key, ORVO::Relay::Config& config) {
    if (!document.isObject() || !document.isMember(key)) return false;
    if (!config.LoadFromJson(document[key])) return false;
    return config.IsValid();
}

int WriteMiscConfigToFile(ORVO::Relay::MiscConf& config) {
    if (!WriteConfig(&config)) {
        FARLINK_LOG("Failed to write config");
        return kApiErrFailed;
    }
    if (NotifyOrvorelayd() == -1) {
        FARLINK_LOG("Fail to set notify orvorelayd");
        return kApiErrFailed;
    }
    return kApiSuccess;
}

void GenerateServiceConfig() {
    ORVO::Relay::ServicePermission permission(false);
    AS_ROOT(permission.GenPermissionConf());
}
