// ORVO.Core.Farlink.Upnp version 1.
#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {
constexpr char kLogSource[] = "farlink.upnp.v1";
constexpr char kUpnp[] = "upnp";
}  // namespace

void GetUpnp_v1(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value document;
    // Only a file that cannot be read is regenerated here, and the daemon is
    // not told; a readable file without the setting is left for "set" to fix.
    if (!ReadJsonFile(kMiscConfPath, document)) {
        ORVO::Relay::MiscConf defaults(kMiscConfPath, false);
        if (!WriteConfig(&defaults)) {
            FARLINK_LOG("Failed to write config");
            return Finish(response, kApiErrFailed);
        }
        if (!defaults.Write(document, true)) FARLINK_LOG("Fail to get misc config");
    }
    if (!HasMember(document, kUpnp)) return Finish(response, kApiErrFailed);
    Finish(response, kApiSuccess, document[kUpnp]);
}

void SetUpnp_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    ORVO::Relay::MiscConf misc(kMiscConfPath, true);
    if (!OverwriteMiscItem(*request, "enabled", kUpnp, misc)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    if (!WriteConfig(&misc)) {
        FARLINK_LOG("Failed to write config");
        return Finish(response, kApiErrFailed);
    }
    if (NotifyOrvorelayd() == -1) {
        FARLINK_LOG("Fail to set notify orvorelayd");
        return Finish(response, kApiErrFailed);
    }
    Finish(response, kApiSuccess);
}
