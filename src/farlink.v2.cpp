// ORVO.Core.Farlink version 2.
#include <orvo/kivo.h>

#include <cstring>
#include <memory>
#include <string>

#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {

constexpr char kLogSource[] = "farlink.v2";

// How a get request ends its background account refresh.
struct AccountRefresh {
    bool start = true;
    bool useCache = false;
};

// 2908 when the configuration sections were loaded. A refused file is set
// aside and regenerated, so that the next request finds a usable one, and
// this request still fails.
int LoadSettings(RelaySettings& settings) {
    switch (LoadRelaySettings(settings)) {
        case SettingsStep::kDone:
            return kApiSuccess;
        case SettingsStep::kDaemonStatus:
            FARLINK_LOG("load relayinfo failed");
            break;
        case SettingsStep::kGenerate:
            FARLINK_LOG("Generate relayd config failed");
            break;
        case SettingsStep::kReread:
            FARLINK_LOG("load config failed");
            break;
        case SettingsStep::kSections:
            FARLINK_LOG("load config failed, try to restore it again");
            RenameBadConfig(kRelaydConfPath);
            if (!GenerateRelaydConf()) FARLINK_LOG("Generate relayd config failed");
            break;
    }
    return kApiErrFailed;
}

// The account bound to the server, from the account service. An unbound
// server has an empty account; a record without an account name takes the
// account's e-mail, unless the relay already knows the network is down.
int LookUpAccount(const std::string& daemonError, std::string& account, AccountRefresh& refresh) {
    // Zero-filled: whatever the library leaves unwritten reads as empty.
    const auto record = std::make_unique<_tag_kivo_INFO_>();
    if (OrvoAccountGet(record.get()) != 0) {
        const int error = ORVOKIVOErrGet();
        if (error == KIVO_ERR_NOT_BOUND) return kApiSuccess;
        FARLINK_LOG("OrvoAccountGet failed, code = %d", error);
        return kApiErrFailed;
    }
    account.assign(record->account, strnlen(record->account, sizeof(record->account)));
    if (account.empty() && daemonError != "err_resolv" && daemonError != "err_network") {
        Json::Value details;
        if (OrvoAccountQueryInfo(details) != 0) {
            const int error = ORVOKIVOErrGet();
            FARLINK_LOG("OrvoAccountQueryInfo failed, code = %d", error);
            if (error != KIVO_ERR_NETWORK) return kApiErrFailed;
            refresh.start = false;
            return kApiErrNetwork;
        }
        const Json::Value email = MemberOrNull(details, "email");
        if (email.isString()) account = email.asString();
    }
    refresh.useCache = record->refreshFlag == 1;
    return kApiSuccess;
}

int CollectSettings(Json::Value& body, AccountRefresh& refresh) {
    RelaySettings settings;
    int code = LoadSettings(settings);
    if (code != kApiSuccess) return code;
    std::string account;
    code = LookUpAccount(settings.error, account, refresh);
    if (code != kApiSuccess) return code;
    code = ReportRelaySettings(kLogSource, __LINE__, settings, account, body);
    if (code == kApiSuccess) body["ddns_domain"] = settings.server.GetDDNSDomain();
    return code;
}

}  // namespace

void Get_v2(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value body;
    AccountRefresh refresh;
    const int code = CollectSettings(body, refresh);
    // Whatever the outcome, the next request should find current account
    // data; only an unreachable account service is not asked again.
    if (refresh.start) OrvoAccountQueryInfoBackground(refresh.useCache);
    Finish(response, code, body);
}

void Set_v2(ORVO::APIRequest* request, ORVO::APIResponse* response) {
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
