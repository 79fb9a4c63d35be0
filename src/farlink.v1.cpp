// ORVO.Core.Farlink version 1.
#include <string>

#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {

constexpr char kLogSource[] = "farlink.v1";

// Fully qualified, so that no search domain of the resolver is tried.
constexpr char kPrimaryControlName[] = FARLINK_PRIMARY_CONTROL_HOST ".";
constexpr int kDnsCheckTimeout = 2;
constexpr int kDnsCheckAttempts = 2;

// Name resolution first: without it the relay cannot work whatever the
// files say, and it is bounded, so a dead resolver costs seconds, not more.
int CheckStatus(Json::Value& result) {
    std::string ipv4, ipv6;
    if (!DNSResolveWithTimeout(kPrimaryControlName, ipv4, ipv6, kDnsCheckTimeout,
                               kDnsCheckAttempts)) {
        FARLINK_LOG("Check resolving DNS failed");
        return kApiErrDnsCheck;
    }
    if (ipv4.empty() && ipv6.empty()) {
        FARLINK_LOG("No result when resolving %s", kPrimaryControlName);
        return kApiErrDnsCheck;
    }

    Json::Value document(Json::objectValue);
    if (!ReadJsonFile(kRelaydConfPath, document)) {
        if (!GenerateRelaydConf()) {
            FARLINK_LOG("Generate relayd config failed");
            return kApiErrFailed;
        }
        if (!ReadJsonFile(kRelaydConfPath, document)) {
            FARLINK_LOG("load config failed");
            return kApiErrFailed;
        }
    }
    ORVO::Relay::AliasConf aliasConf;
    if (!SetConfig(document, "server_alias", aliasConf)) {
        // The request still fails; the next one finds the fresh file.
        FARLINK_LOG("load config failed, try to restore it again");
        RenameBadConfig(kRelaydConfPath);
        if (!GenerateRelaydConf()) FARLINK_LOG("Generate relayd config failed");
        return kApiErrFailed;
    }

    std::string serverId, status = "unknown", error;
    if (!ORVO::Relay::Daemon::GetStatus(serverId, status, error, nullptr)) {
        FARLINK_LOG("load relayinfo failed");
        return kApiErrFailed;
    }
    if (error == "err_resolv" || error == "err_network") return kApiErrNetwork;
    if (error == "err_violation") return kApiErrViolation;

    // An alias without a record keeps "unknown".
    std::string aliasStatus = "unknown", aliasError;
    ORVO::Relay::AliasStatus().GetStatus(aliasConf.GetAliasName(), aliasStatus, aliasError);
    result["status"] = status;
    result["alias_status"] = aliasStatus;
    return kApiSuccess;
}

}  // namespace

void Status_v1(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value result(Json::objectValue);
    const int code = CheckStatus(result);
    Finish(response, code, result);
}

void Get_v1(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    RelaySettings settings;
    switch (LoadRelaySettings(settings)) {
        case SettingsStep::kDone:
            break;
        case SettingsStep::kDaemonStatus:
            FARLINK_LOG("load relayinfo failed");
            return Finish(response, kApiErrFailed);
        case SettingsStep::kGenerate:
            FARLINK_LOG("Generate relayd config failed");
            return Finish(response, kApiErrFailed);
        case SettingsStep::kReread:
        case SettingsStep::kSections:
            // Unlike version 2 this version leaves a refused file in place.
            FARLINK_LOG("load config failed");
            return Finish(response, kApiErrFailed);
    }
    // Never loaded from the file: this version reports the library's default.
    const ORVO::Relay::KivoConf kivo;
    Json::Value body;
    const int code =
        ReportRelaySettings(kLogSource, __LINE__, settings, kivo.GetKivoAccount(), body);
    Finish(response, code, body);
}

void Set_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    bool enabled = false;
    if (!ReadBoolParam(*request, "enabled", enabled)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    if (SwitchRelay(enabled) != 0) {
        FARLINK_LOG("Fail to notify orvorelayd");
        return Finish(response, kApiErrFailed);
    }
    Finish(response, kApiSuccess);
}
