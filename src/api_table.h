// The module's entry: the API table the web API server dispatches by, the
// API error codes, and the translation of relay library results into them.
#pragma once

#include <orvo/relayd.h>
#include <orvo/webapi.h>

#include <cstdint>

#define FARLINK_EXPORT __attribute__((visibility("default")))

// API error codes. kApiSuccess is the module's own success value: helpers and
// the maps return it, handlers compare against it, and it is never sent as an
// error. 2903 to 2906 only pass on what the relay library's results mean;
// their names say which results those are.
constexpr int kApiErrFailed = 2900;
constexpr int kApiErrInvalidParam = 2901;
constexpr int kApiErrNetwork = 2902;
constexpr int kApiErrServiceRefused = 2903;     // not registered, TLS, server errors, alias limits
constexpr int kApiErrAliasTaken = 2904;         // another server holds the alias
constexpr int kApiErrAuthRefused = 2905;        // credentials refused, or the server busy
constexpr int kApiErrAccountUnverified = 2906;  // the account is not validated
constexpr int kApiErrDnsCheck = 2907;
constexpr int kApiSuccess = 2908;
constexpr int kApiErrAccountKey = 2909;
constexpr int kApiErrViolation = 2910;
constexpr int kApiErrNotAvailable = 2911;

// One translation pair; a pair whose `from` is kErrorMapEnd ends a map. The
// maps are binary interface: the pairs are fixed numbers, written with the
// relay library's names for them, and the load test checks them byte by
// byte.
struct ErrorCodePair {
    std::int32_t from;
    std::int32_t to;
};
static_assert(sizeof(ErrorCodePair) == 8, "map pairs are two 32-bit integers");
constexpr std::int32_t kErrorMapEnd = ORVO::Relay::RELAYD_RET_UNSET;
static_assert(kErrorMapEnd == ORVO::Relay::ALIAS_RET_UNSET, "both maps end alike");

extern "C" {
FARLINK_EXPORT extern const ORVO::APITableEntry grgTable[];
FARLINK_EXPORT extern const ErrorCodePair grgRelayErrorCodeMap[18];
FARLINK_EXPORT extern const ErrorCodePair grgAliasErrorCodeMap[15];
FARLINK_EXPORT const ORVO::APITableEntry* GetAPITable();
}

int MapRelayErrorCode(ORVO::Relay::RELAYD_RET ret);
int MapAliasErrorCode(ORVO::Relay::ALIAS_RET ret);

// Handlers, one per table row.
FARLINK_EXPORT void Status_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void Get_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void Set_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void SetServerAlias_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void GetPermission_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void SetPermission_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void SetUpnp_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void GetUpnp_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void SetSNI_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void GetIP_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void GetRegisterSite_v1(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void Get_v2(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void Set_v2(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void SetServerAlias_v2(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void GetMiscConfig_v3(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void SetMiscConfig_v3(ORVO::APIRequest* request, ORVO::APIResponse* response);
FARLINK_EXPORT void CheckAvailability_v3(ORVO::APIRequest* request, ORVO::APIResponse* response);
