#include "api_table.h"

namespace {

constexpr char kCoreApi[] = "ORVO.Core.Farlink";
constexpr char kPermissionApi[] = "ORVO.Core.Farlink.Permission";
constexpr char kUpnpApi[] = "ORVO.Core.Farlink.Upnp";
constexpr char kSniApi[] = "ORVO.Core.Farlink.SNI";
constexpr char kHostnameApi[] = "ORVO.Core.Farlink.Hostname";
constexpr char kRegisterSiteApi[] = "ORVO.Core.Farlink.RegisterSite";

int LookupErrorCode(const ErrorCodePair* map, int code) {
    for (const ErrorCodePair* pair = map;; ++pair) {
        if (pair->from == kErrorMapEnd) return kApiErrFailed;
        if (pair->from == code) return pair->to;
    }
}

}  // namespace

extern "C" {

// The host reads the table as raw machine words: rows keep this order and
// end with an all-zero row.
const ORVO::APITableEntry grgTable[] = {
    {kCoreApi, 1, "status", Status_v1},
    {kCoreApi, 1, "get", Get_v1},
    {kCoreApi, 1, "set", Set_v1},
    {kCoreApi, 1, "set_server_alias", SetServerAlias_v1},
    {kPermissionApi, 1, "get", GetPermission_v1},
    {kPermissionApi, 1, "set", SetPermission_v1},
    {kUpnpApi, 1, "set", SetUpnp_v1},
    {kUpnpApi, 1, "get", GetUpnp_v1},
    {kSniApi, 1, "set", SetSNI_v1},
    {kHostnameApi, 1, "get_ip", GetIP_v1},
    {kRegisterSiteApi, 1, "get", GetRegisterSite_v1},
    {kCoreApi, 2, "get", Get_v2},
    {kCoreApi, 2, "set", Set_v2},
    {kCoreApi, 2, "set_server_alias", SetServerAlias_v2},
    {kCoreApi, 3, "get_misc_config", GetMiscConfig_v3},
    {kCoreApi, 3, "set_misc_config", SetMiscConfig_v3},
    {kCoreApi, 3, "check_availability", CheckAvailability_v3},
    {nullptr, 0, nullptr, nullptr},
};

using namespace ORVO::Relay;

const ErrorCodePair grgRelayErrorCodeMap[18] = {
    {RELAYD_OK, kApiSuccess},
    {RELAYD_ERR_SERVER_BUSY, kApiErrAuthRefused},
    {RELAYD_ERR_AUTH, kApiErrAuthRefused},
    {RELAYD_ERR_RESOLVE, kApiErrNetwork},
    {RELAYD_ERR_NETWORK, kApiErrNetwork},
    {RELAYD_ERR_NOT_REGISTERED, kApiErrServiceRefused},
    {RELAYD_ERR_TLS, kApiErrServiceRefused},
    {RELAYD_ERR_SERVER_INTERNAL, kApiErrServiceRefused},
    {RELAYD_ERR_UNSUPPORTED, kApiErrServiceRefused},
    {RELAYD_ERR_VIOLATION, kApiErrViolation},
    {RELAYD_ERR_BAD_RESPONSE, kApiErrFailed},
    {RELAYD_ERR_APIKEY_EXPIRED, kApiErrAccountKey},
    {RELAYD_ERR_TIMEOUT, kApiErrFailed},
    {RELAYD_ERR_UNKNOWN, kApiErrFailed},
    {RELAYD_ERR_INVALID_ARG, kApiErrFailed},
    {RELAYD_ERR_CONFIG, kApiErrFailed},
    {RELAYD_ERR_DAEMON, kApiErrFailed},
    {kErrorMapEnd, kApiErrFailed},
};

const ErrorCodePair grgAliasErrorCodeMap[15] = {
    {ALIAS_OK, kApiSuccess},
    {ALIAS_ERR_PARAM, kApiErrInvalidParam},
    {ALIAS_ERR_RESOLVE, kApiErrNetwork},
    {ALIAS_ERR_NETWORK, kApiErrNetwork},
    {ALIAS_ERR_TAKEN, kApiErrAliasTaken},
    {ALIAS_ERR_ACCOUNT_UNVERIFIED, kApiErrAccountUnverified},
    {ALIAS_ERR_AUTH, kApiErrAuthRefused},
    {ALIAS_ERR_RESERVED, kApiErrServiceRefused},
    {ALIAS_ERR_ACCOUNT_LIMIT, kApiErrServiceRefused},
    {ALIAS_ERR_NOT_REGISTERED, kApiErrServiceRefused},
    {ALIAS_ERR_UNKNOWN, kApiErrFailed},
    {ALIAS_ERR_INTERNAL, kApiErrFailed},
    {ALIAS_ERR_APIKEY_EXPIRED, kApiErrAccountKey},
    {ALIAS_ERR_VIOLATION, kApiErrViolation},
    {kErrorMapEnd, kApiErrFailed},
};

const ORVO::APITableEntry* GetAPITable() { return grgTable; }

}  // extern "C"

int MapRelayErrorCode(ORVO::Relay::RELAYD_RET ret) {
    return LookupErrorCode(grgRelayErrorCodeMap, ret);
}

int MapAliasErrorCode(ORVO::Relay::ALIAS_RET ret) {
    return LookupErrorCode(grgAliasErrorCodeMap, ret);
}
