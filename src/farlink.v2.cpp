// ORVO.Core.Farlink version 2.
#include <orvo/core.h>
#include <orvo/kivo.h>

#include <cstring>
#include <memory>
#include <string>

#include "api_table.h"
#include "handler_common.h"
#include "server_alias.h"
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
    Finish(response, SetRelayEnabled(*request, kLogSource, __LINE__));
}

// ---- set_server_alias

namespace {

constexpr char kSecondaryControlHost[] = FARLINK_SECONDARY_CONTROL_HOST;
constexpr char kRelayInfoPrefix[] = "https://relayinfo.";
constexpr int kPortalDomainSize = 1024;

// What the control server knows the account bound to this server by. The
// caller no longer sends an account: the account service is the authority.
struct BoundAccount {
    std::string id;
    std::string authKey;
};

int ReadBoundAccount(BoundAccount& account) {
    // Zero-filled: whatever the library leaves unwritten reads as empty.
    const auto record = std::make_unique<_tag_kivo_INFO_>();
    if (OrvoAccountGet(record.get()) != 0) {
        const int reason = ORVOKIVOErrGet();
        FARLINK_LOG("ERR_GET_KIVO_ACCOUNT_FAILED error code = %d", reason);
        if (reason == KIVO_ERR_NETWORK) return kApiErrNetwork;
        return reason == KIVO_ERR_NOT_BOUND ? kApiErrAccountKey : kApiErrFailed;
    }
    account.id.assign(record->kivoId, strnlen(record->kivoId, sizeof(record->kivoId)));
    account.authKey.assign(record->authKey, strnlen(record->authKey, sizeof(record->authKey)));
    if (account.id.empty() || account.authKey.empty()) {
        FARLINK_LOG("invalid kivo inforamtion, id: %s authkey: %s", account.id.c_str(),
                    account.authKey.c_str());
        return kApiErrFailed;
    }
    return kApiSuccess;
}

// Registers when the server has no usable server ID, at the secondary global
// control server when the primary refuses and fail-over is allowed, and then
// asks the server that registered it for the register site. A server that
// already has an ID keeps the register site it has, discovered or not.
int EnsureServerId(ORVO::Relay::RelaydConf& conf) {
    if (!NeedsServerId()) return kApiSuccess;
    ORVO::Relay::RELAYD_RET ret = ORVO::Relay::RELAYD_RET_UNSET;
    if (!RegisterServerId(conf, ret)) {
        if (!IsFailoverEnable()) {
            FARLINK_LOG("Register serverid failed, failover to cn is disable");
            return RelayFailureCode(ret);
        }
        FARLINK_LOG("Register failed, try %s", kSecondaryControlHost);
        // This call's object only: the file learns of the secondary server
        // through what registration and discovery write, if at all.
        conf.serverGlobal.SetHost(kSecondaryControlHost);
        if (!RegisterServerId(conf, ret)) {
            FARLINK_LOG("Register serverid failed");
            return RelayFailureCode(ret);
        }
    }
    if (!GetRegisterSite(conf, ret)) {
        FARLINK_LOG("Get register site failed");
        return RelayFailureCode(ret);
    }
    return kApiSuccess;
}

// The relay's smart-DNS support, told to the control server. A misc.conf that
// cannot be read is written afresh with the defaults, whatever the alias
// request's fate.
int ReadSmartDnsSupport(Json::Value& supportType) {
    Json::Value misc;
    if (!ReadJsonFile(kMiscConfPath, misc)) {
        ORVO::Relay::MiscConf defaults(kMiscConfPath, false);
        if (!WriteConfig(&defaults)) {
            FARLINK_LOG("Failed to write misc config");
            return kApiErrFailed;
        }
        if (!defaults.Write(misc, true)) FARLINK_LOG("Failed to get misc config");
    }
    supportType = MemberOrNull(MemberOrNull(misc, "smartdns"), "smartdns_support_type");
    return kApiSuccess;
}

// Where the control server points clients for relay information: the portal
// domain's own site when the configuration names one.
std::string RelayInfoUrl() {
    char domain[kPortalDomainSize] = {};
    if (OLIBRelaydGetPortalDomain(domain, kPortalDomainSize) != 0) {
        return FARLINK_DEFAULT_RELAYINFO_URL;
    }
    return kRelayInfoPrefix + std::string(domain, strnlen(domain, sizeof(domain)));
}

int SetServerAlias(const ORVO::APIRequest& request) {
    std::string alias;
    bool force = false;
    if (!ReadStringParam(request, "server_alias", alias) ||
        (request.HasParam("force") && !ReadBoolParam(request, "force", force))) {
        FARLINK_LOG("Invalid parameter");
        return kApiErrInvalidParam;
    }
    if (!IsValidServerAlias(alias)) {
        FARLINK_LOG("alias format error: %s", alias.c_str());
        return kApiErrInvalidParam;
    }

    ORVO::Relay::RelaydConf conf(kRelaydConfPath);
    BoundAccount account;
    int code = ReadBoundAccount(account);
    if (code == kApiSuccess) code = EnsureServerId(conf);
    if (code != kApiSuccess) return code;
    if (!conf.serverAlias.SetAliasName(alias)) {
        FARLINK_LOG("Alias set error: %s", alias.c_str());
        return kApiErrFailed;
    }
    Json::Value smartDnsSupport;
    code = ReadSmartDnsSupport(smartDnsSupport);
    if (code != kApiSuccess) return code;

    Json::Value body = AliasRequestBody(conf, force);
    body["kivo_id"] = account.id;
    body["auth_key"] = account.authKey;
    body["smartdns_support_type"] = smartDnsSupport;
    body["url"] = RelayInfoUrl();

    const AliasResult result = RequestServerAlias(conf, alias, body);
    LogAliasStop(kLogSource, __LINE__, result, alias, body);
    return result.code;
}

}  // namespace

void SetServerAlias_v2(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    Finish(response, SetServerAlias(*request));
}
