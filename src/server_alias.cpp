#include "server_alias.h"

#include "api_table.h"
#include "log.h"
#include "posix_pattern.h"
#include "utils.h"

namespace {

constexpr char kAliasPattern[] = R"(^[a-zA-Z][a-zA-Z0-9\-]*$)";

}  // namespace

bool IsValidServerAlias(const std::string& alias) {
    return PosixPattern(kAliasPattern).MatchesText(alias);
}

bool NeedsServerId() {
    std::string serverId, status, error;
    // Whether the query worked is not asked: a status it could not read
    // leaves the words empty, and that means registering.
    GetDaemonStatus(serverId, status, error);
    return status == "not_running" || serverId.empty();
}

int RelayFailureCode(ORVO::Relay::RELAYD_RET ret) {
    const int code = MapRelayErrorCode(ret);
    return code == kApiSuccess ? kApiErrFailed : code;
}

Json::Value AliasRequestBody(const ORVO::Relay::RelaydConf& conf, bool force) {
    Json::Value body(Json::objectValue);
    conf.DumpDataForAliasReq(body);
    // A string, not a JSON boolean: the control server compares the text.
    body["force"] = force ? "true" : "false";
    return body;
}

AliasResult RequestServerAlias(ORVO::Relay::RelaydConf& conf, const std::string& alias,
                               const Json::Value& body) {
    AliasResult result{kApiErrFailed, AliasStop::kNone, ORVO::Relay::ALIAS_RET_UNSET,
                       std::string()};
    ORVO::Relay::AliasRequest request;
    if (!request.SetRequest(ORVO::Relay::ALIAS_REQUEST_SET, body)) {
        result.stop = AliasStop::kSetRequest;
        return result;
    }
    request.Send(result.outcome);
    // The cloud service learns of an expired key whatever the caller answers.
    if (result.outcome == ORVO::Relay::ALIAS_ERR_APIKEY_EXPIRED) HandleApiKeyExpired();
    result.code = MapAliasErrorCode(result.outcome);
    request.ResponseToString(result.outcome, result.outcomeText);
    if (result.code != kApiSuccess) {
        result.stop = AliasStop::kRefused;
        return result;
    }

    conf.serverAlias.SetAliasName(alias);
    if (!WriteConfig(&conf.serverAlias)) {
        result.code = kApiErrFailed;
        result.stop = AliasStop::kWriteConfig;
        return result;
    }
    ORVO::Relay::AliasStatus().SetStatus(alias, result.outcomeText, std::string(), true);
    if (NotifyOrvorelayd() == -1) {
        result.code = kApiErrFailed;
        result.stop = AliasStop::kNotify;
    }
    return result;
}

void LogAliasStop(const char* source, int line, const AliasResult& result, const std::string& alias,
                  const Json::Value& body) {
    switch (result.stop) {
        case AliasStop::kSetRequest:
            FARLINK_LOG_AT(LOG_ERR, source, line, "Alias set error: %s",
                           body.toStyledString().c_str());
            break;
        case AliasStop::kRefused:
            FARLINK_LOG_AT(LOG_ERR, source, line, "Alias request alias: %s ret: %d error: %s",
                           alias.c_str(), static_cast<int>(result.outcome),
                           result.outcomeText.c_str());
            break;
        case AliasStop::kWriteConfig:
            FARLINK_LOG_AT(LOG_ERR, source, line, "cannot wirte config file");
            break;
        case AliasStop::kNotify:
            FARLINK_LOG_AT(LOG_ERR, source, line, "Fail to set notify orvorelayd");
            break;
        case AliasStop::kNone:
            break;
    }
}
