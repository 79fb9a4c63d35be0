// ORVO.Core.Farlink.RegisterSite version 1.
#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {

constexpr char kLogSource[] = "farlink.registersite.v1";

// Plain http on purpose: this method differs here from the module's own
// discovery in utils, which asks over https.
constexpr char kPrimaryUrl[] = "http://" FARLINK_PRIMARY_CONTROL_HOST "/Serv.php";
constexpr char kSecondaryUrl[] = "http://" FARLINK_SECONDARY_CONTROL_HOST "/Serv.php";

}  // namespace

void GetRegisterSite_v1(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value answer(Json::objectValue);
    ORVO::Relay::RELAYD_RET ret = ORVO::Relay::RELAYD_RET_UNSET;
    bool answered = GetRegisterSiteAPI(kPrimaryUrl, answer, ret);
    if (!answered && IsFailoverEnable()) {
        FARLINK_LOG("get register site fail, try %s", FARLINK_SECONDARY_CONTROL_HOST);
        answered = GetRegisterSiteAPI(kSecondaryUrl, answer, ret);
    }
    if (!answered) {
        FARLINK_LOG("get register site fail");
        // A failure whose relay result still reads as success is answered
        // with whatever was received, unlike GetRegisterSiteWithCn.
        return Finish(response, MapRelayErrorCode(ret), answer);
    }
    if (!HasRegisterSiteHost(answer)) {
        FARLINK_LOG("cannot parse a register site host");
        return Finish(response, kApiErrFailed);
    }
    // Passed on as received, the members besides "host" included.
    Finish(response, kApiSuccess, answer);
}
