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

const ErrorCodePair grgRelayErrorCodeMap[18] = {
    {0, 2908},  {8, 2905},  {5, 2905},  {6, 2902},  {7, 2902}, {10, 2903},
    {12, 2903}, {13, 2903}, {14, 2903}, {30, 2910}, {9, 2900}, {15, 2909},
    {11, 2900}, {1, 2900},  {2, 2900},  {3, 2900},  {4, 2900}, {kErrorMapEnd, 2900},
};

const ErrorCodePair grgAliasErrorCodeMap[15] = {
    {1, 2908},  {5, 2901},  {6, 2902},  {7, 2902},  {3, 2904},
    {12, 2906}, {8, 2905},  {4, 2903},  {9, 2903},  {10, 2903},
    {2, 2900},  {11, 2900}, {14, 2909}, {30, 2910}, {kErrorMapEnd, 2900},
};

const ORVO::APITableEntry* GetAPITable() { return grgTable; }

}  // extern "C"

int MapRelayErrorCode(ORVO::Relay::RELAYD_RET ret) {
    return LookupErrorCode(grgRelayErrorCodeMap, ret);
}

int MapAliasErrorCode(ORVO::Relay::ALIAS_RET ret) {
    return LookupErrorCode(grgAliasErrorCodeMap, ret);
}
