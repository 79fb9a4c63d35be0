#include "handler_common.h"

#include <orvo/core.h>

#include <cstring>

#include "api_table.h"
#include "utils.h"

namespace {

bool FetchParam(const ORVO::APIRequest& request, const char* name, Json::Value& value) {
    if (!request.HasParam(name)) return false;
    value = request.GetParam(name, Json::Value());
    return true;
}

}  // namespace

bool ReadBoolParam(const ORVO::APIRequest& request, const char* name, bool& value) {
    Json::Value param;
    if (!FetchParam(request, name, param) || !param.isConvertibleTo(Json::booleanValue)) {
        return false;
    }
    value = param.asBool();
    return true;
}

bool ReadStringParam(const ORVO::APIRequest& request, const char* name, std::string& value) {
    Json::Value param;
    if (!FetchParam(request, name, param) || !param.isConvertibleTo(Json::stringValue)) {
        return false;
    }
    value = param.asString();
    return true;
}

void Finish(ORVO::APIResponse* response, int code, const Json::Value& data) {
    if (code == kApiSuccess) {
        response->SetSuccess(data);
    } else {
        response->SetError(code, Json::Value());
    }
}

bool HasMember(const Json::Value& document, const char* key) {
    return document.isObject() && document.isMember(key);
}

Json::Value MemberOrNull(const Json::Value& document, const char* key) {
    return HasMember(document, key) ? document[key] : Json::Value();
}

bool OverwriteMiscItem(const ORVO::APIRequest& request, const char* required, const char* key,
                       ORVO::Relay::MiscConf& misc) {
    if (!request.HasParam(required)) return false;
    misc.OverwriteItem(key, request.GetParam("", Json::Value()));
    return true;
}

bool GenerateRelaydConf() {
    ORVO::Relay::RelaydConf defaults(kRelaydConfPath);
    return WriteConfig(&defaults);
}

SettingsStep LoadRelaySettings(RelaySettings& settings) {
    if (!GetDaemonStatus(settings.serverId, settings.status, settings.error)) {
        return SettingsStep::kDaemonStatus;
    }
    // A daemon that is not running cannot refresh anything; the file is read
    // all the same.
    UpdateAlias();
    Json::Value document;
    if (!ReadJsonFile(kRelaydConfPath, document)) {
        if (!GenerateRelaydConf()) return SettingsStep::kGenerate;
        if (!ReadJsonFile(kRelaydConfPath, document)) return SettingsStep::kReread;
    }
    if (!SetConfig(document, "server_alias", settings.alias) ||
        !SetConfig(document, "server_control", settings.server)) {
        return SettingsStep::kSections;
    }
    return SettingsStep::kDone;
}

int ReportRelaySettings(const char* source, int line, const RelaySettings& settings,
                        const std::string& account, Json::Value& body) {
    const bool enabled = OrvorelaydServiceIsEnabled();
    char domain[1024];
    std::memset(domain, 0, sizeof(domain));
    const int found = RunPrivileged(source, line, [&domain] {
        return OLIBRelaydGetPortalDomain(domain, static_cast<int>(sizeof(domain)));
    });
    if (found != 0) return kApiErrFailed;
    body = Json::Value(Json::objectValue);
    body["server_id"] = settings.serverId;
    body["server_alias"] = settings.alias.GetAliasName();
    body["kivo_account"] = account;
    body["domain"] = domain;
    body["region"] = settings.server.GetRegion();
    body["enabled"] = enabled;
    return kApiSuccess;
}

int SetRelayEnabled(const ORVO::APIRequest& request, const char* source, int line) {
    bool enabled = false;
    if (!ReadBoolParam(request, "enabled", enabled)) {
        FARLINK_LOG_AT(LOG_ERR, source, line, "Invalid parameter");
        return kApiErrInvalidParam;
    }
    if (SwitchRelay(enabled) != 0) {
        FARLINK_LOG_AT(LOG_ERR, source, line, "Fail to notify orvorelayd");
        return kApiErrFailed;
    }
    return kApiSuccess;
}
