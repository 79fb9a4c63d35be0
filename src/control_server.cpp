#include "control_server.h"

#include <openssl/md5.h>

#include <cstdio>
#include <cstring>

#include "api_table.h"
#include "critical_section.h"
#include "daemon_control.h"
#include "log.h"

namespace {

constexpr const char* kLogSource = kUtilsLogSource;

constexpr int kControlProtocolVersion = 1;
// A control server that cannot be reached within this time is given up, so
// that the fail-over server still gets its turn within the request.
constexpr long kRegisterSiteConnectTimeout = 5;
constexpr char kPrimaryRegisterSiteUrl[] = "https://" FARLINK_PRIMARY_CONTROL_HOST "/Serv.php";
constexpr char kSecondaryRegisterSiteUrl[] = "https://" FARLINK_SECONDARY_CONTROL_HOST "/Serv.php";
constexpr int kMd5TextSize = 64;

}  // namespace

bool GetRegisterSiteAPI(const std::string& url, Json::Value& response,
                        ORVO::Relay::RELAYD_RET& ret) {
    Json::Value body;
    ORVO::Relay::Request request(url, body, true);
    body["version"] = kControlProtocolVersion;
    body["command"] = "get_register_site";
    if (!request.Set(url, body, true)) {
        FARLINK_LOG("set register command failed");
        return false;
    }
    if (!request.SetConnectionTimeout(kRegisterSiteConnectTimeout)) {
        FARLINK_LOG("Set register connection timeout failed");
        return false;
    }
    if (!request.Send()) {
        ret = request.GetError();
        FARLINK_LOG("request send failed: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(ret));
        return false;
    }
    if (!request.GetResponse(response)) {
        ret = request.GetError();
        FARLINK_LOG("can not get response: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(ret));
        return false;
    }
    const ORVO::Relay::RELAYSERVER_ERR serverError = ORVO::Relay::ParseServerError(response);
    ret = ORVO::Relay::RespErrMap(serverError);
    if (ret != ORVO::Relay::RELAYD_OK) {
        FARLINK_LOG("reponse failed: %d, %s", static_cast<int>(serverError),
                    ORVO::Relay::GetErrorStr(ret));
        return false;
    }
    return true;
}

bool HasRegisterSiteHost(const Json::Value& answer) {
    return answer.isObject() && answer.isMember("host") && answer["host"].isString();
}

int GetRegisterSiteWithCn(Json::Value& response) {
    ORVO::Relay::RELAYD_RET ret = ORVO::Relay::RELAYD_RET_UNSET;
    if (!GetRegisterSiteAPI(kPrimaryRegisterSiteUrl, response, ret)) {
        if (!IsFailoverEnable()) {
            FARLINK_LOG("get register site fail");
            return MapRelayErrorCode(ret);
        }
        FARLINK_LOG("get register site fail, try %s", FARLINK_SECONDARY_CONTROL_HOST);
        if (!GetRegisterSiteAPI(kSecondaryRegisterSiteUrl, response, ret)) {
            FARLINK_LOG("get register site fail");
            return MapRelayErrorCode(ret);
        }
    }
    if (!HasRegisterSiteHost(response)) {
        FARLINK_LOG("cannot parse a register site host");
        return kApiErrFailed;
    }
    return kApiSuccess;
}

bool GetRegisterSite(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret) {
    Json::Value response;
    if (!GetRegisterSiteAPI(conf.serverGlobal.GetUrl(nullptr), response, ret)) return false;
    // A successful exchange has left `ret` at 0: callers stop on the result.
    if (!HasRegisterSiteHost(response)) {
        FARLINK_LOG("cannot get a register site host");
        return false;
    }
    conf.serverControl.Overwrite(response);
    const std::string host = conf.serverControl.GetHost();
    {
        CriticalSection section(kLogSource, __LINE__);
        conf.WriteControlServerHost("", host);
        conf.WriteServerId("");
    }
    return true;
}

ORVO::Relay::RELAYD_RET SendRegisterServerId(ORVO::Relay::RelaydConf& conf, Json::Value& response) {
    Json::Value body;
    ORVO::Relay::Request request(conf.serverGlobal.GetUrl(nullptr), body, true);
    conf.auth.ReadConf();
    body["version"] = kControlProtocolVersion;
    body["command"] = "register";
    // The credentials go into the body only: they are never logged or kept.
    if (!conf.auth.Write(body["auth"], true)) {
        FARLINK_LOG("get auth token failed");
        return ORVO::Relay::RELAYD_RET_UNSET;
    }
    if (!request.Set(conf.serverGlobal.GetUrl(nullptr), body, true)) {
        FARLINK_LOG("set register command failed");
        return ORVO::Relay::RELAYD_RET_UNSET;
    }
    // No connection time-out of its own: the library's limits apply.
    if (!request.Send()) {
        const ORVO::Relay::RELAYD_RET result = request.GetError();
        FARLINK_LOG("request send failed: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(result));
        return result;
    }
    if (!request.GetResponse(response)) {
        const ORVO::Relay::RELAYD_RET result = request.GetError();
        FARLINK_LOG("can not get response: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(result));
        return result;
    }
    return ORVO::Relay::RespErrMap(ORVO::Relay::ParseServerError(response));
}

bool RegisterServerId(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret) {
    Json::Value response;
    ret = SendRegisterServerId(conf, response);
    if (ret == ORVO::Relay::RELAYD_OK) {
        if (!response.isObject() || !response.isMember("serverID") ||
            !response["serverID"].isString()) {
            FARLINK_LOG("cannot get a serverid");
            return false;
        }
        conf.serverId = response["serverID"].asString();
        AS_ROOT(conf.WriteServerId(""));
        return true;
    }
    if (ret == ORVO::Relay::RELAYD_ERR_APIKEY_EXPIRED) {
        // The cloud service learns of it; the caller answers the error.
        HandleApiKeyExpired();
        return false;
    }
    FARLINK_LOG("reponse failed: %d, %s", static_cast<int>(ORVO::Relay::ParseServerError(response)),
                ORVO::Relay::GetErrorStr(ret));
    return false;
}

// The MD5 calls are deprecated in OpenSSL 3 but are the interface this
// digest has always been made with.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int GetMd5String(const char* text, char* out, int outSize) {
    if (text == nullptr || out == nullptr) {
        FARLINK_LOG("Invalid input.");
        return -1;
    }
    if (outSize < kMd5TextSize) {
        FARLINK_LOG("Invalid output size");
        return -1;
    }
    std::memset(out, 0, static_cast<size_t>(outSize));
    unsigned char digest[64];
    std::memset(digest, 0, sizeof(digest));
    MD5_CTX context;
    if (MD5_Init(&context) < 1) {
        FARLINK_LOG("MD5_Init failed");
        return -1;
    }
    if (MD5_Update(&context, text, std::strlen(text)) < 1) {
        FARLINK_LOG("MD5_Update failed");
        return -1;
    }
    if (MD5_Final(digest, &context) < 1) {
        FARLINK_LOG("MD5_Final failed");
        return -1;
    }
    for (int i = 0; i < MD5_DIGEST_LENGTH; ++i) {
        std::snprintf(out + 2 * i, 3, "%02x", digest[i]);
    }
    // Callers hand in 65 bytes; the terminator goes after the checked size.
    out[kMd5TextSize] = '\0';
    return 0;
}
#pragma GCC diagnostic pop
