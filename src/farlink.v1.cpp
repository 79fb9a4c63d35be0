// ORVO.Core.Farlink version 1.
#include <sys/types.h>

#include <cstring>
#include <string>

#include "api_table.h"
#include "handler_common.h"
#include "posix_pattern.h"
#include "server_alias.h"
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
    Finish(response, SetRelayEnabled(*request, kLogSource, __LINE__));
}

// ---- set_server_alias

namespace {

constexpr char kAccountPattern[] =
    R"(^[0-9A-Za-z!#$%&'*+\/=?^_`{|}~\-]+(\.[0-9A-Za-z!#$%&'*+\/=?^_`{|}~\-]+)*@)"
    R"(([A-Za-z0-9]([A-Za-z0-9\-]*[A-Za-z0-9])?\.)+[A-Za-z]{2,}$)";
constexpr std::size_t kMinPasswordLength = 6;
constexpr std::size_t kMaxPasswordLength = 128;
// 32 hex digits and their terminator, with the room GetMd5String asks for.
constexpr int kDigestBufferSize = 65;

int SetServerAlias(const ORVO::APIRequest& request) {
    std::string account, alias, password;
    bool force = false;
    if (!ReadStringParam(request, "kivo_account", account) ||
        !ReadStringParam(request, "server_alias", alias) ||
        !ReadStringParam(request, "kivo_password", password) ||
        (request.HasParam("force") && !ReadBoolParam(request, "force", force))) {
        FARLINK_LOG("Invalid parameter");
        return kApiErrInvalidParam;
    }
    if (!IsValidServerAlias(alias)) {
        FARLINK_LOG("alias format error: %s", alias.c_str());
        return kApiErrInvalidParam;
    }
    if (!PosixPattern(kAccountPattern).MatchesText(account)) {
        FARLINK_LOG("kivo account format error: %s", account.c_str());
        return kApiErrInvalidParam;
    }
    // Counted as the digest will see it: up to the first NUL.
    const std::size_t length = std::strlen(password.c_str());
    if (length - kMinPasswordLength > kMaxPasswordLength - kMinPasswordLength) {
        FARLINK_LOG("kivo passowrd length is invaild: %zd", static_cast<ssize_t>(length));
        return kApiErrInvalidParam;
    }

    ORVO::Relay::RelaydConf conf(kRelaydConfPath);
    ORVO::Relay::RELAYD_RET ret = ORVO::Relay::RELAYD_RET_UNSET;
    // Both records on one host: the register site has not been discovered.
    if (conf.serverControl.GetHost() == conf.serverGlobal.GetHost() &&
        !GetRegisterSite(conf, ret)) {
        FARLINK_LOG("Get register site faield");
        return RelayFailureCode(ret);
    }
    if (NeedsServerId() && !RegisterServerId(conf, ret)) {
        FARLINK_LOG("Register serverid faield");
        return RelayFailureCode(ret);
    }

    // Only the digest leaves this function; the password itself is neither
    // sent nor stored.
    char digest[kDigestBufferSize] = {};
    if (GetMd5String(password.c_str(), digest, kDigestBufferSize) == -1) {
        FARLINK_LOG("Encrypted error: %s", account.c_str());
        return kApiErrFailed;
    }
    if (!conf.kivo.SetKivoAccount(account)) {
        FARLINK_LOG("Kivo Account set error: %s", account.c_str());
        return kApiErrFailed;
    }
    if (!conf.serverAlias.SetAliasName(alias)) {
        FARLINK_LOG("Alias set error: %s", alias.c_str());
        return kApiErrFailed;
    }
    Json::Value body = AliasRequestBody(conf, force);
    body["kivo_account"] = account;
    body["kivo_password"] = digest;

    const AliasResult result = RequestServerAlias(conf, alias, body);
    LogAliasStop(kLogSource, __LINE__, result, alias, body);
    return result.code;
}

}  // namespace

void SetServerAlias_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    Finish(response, SetServerAlias(*request));
}
