// ORVO.Core.Farlink version 3.
#include <orvo/kivo.h>

#include "api_table.h"
#include "handler_common.h"
#include "posix_pattern.h"
#include "utils.h"

namespace {
constexpr char kLogSource[] = "farlink.v3";
constexpr char kRelayTunnel[] = "relay_tunnel";
}  // namespace

void GetMiscConfig_v3(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value document;
    if (ReadJsonFile(kMiscConfPath, document) && HasMember(document, kRelayTunnel)) {
        return Finish(response, kApiSuccess, document[kRelayTunnel]);
    }
    // Regenerated whole from the library's defaults rather than patched: the
    // library owns the file's layout, the module only its one member.
    ORVO::Relay::MiscConf defaults(kMiscConfPath, false);
    if (!defaults.Write(document, true)) FARLINK_LOG("Fail to get misc config");
    const int code = WriteMiscConfigToFile(defaults);
    Finish(response, code, MemberOrNull(document, kRelayTunnel));
}

void SetMiscConfig_v3(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    ORVO::Relay::MiscConf misc(kMiscConfPath, true);
    if (!OverwriteMiscItem(*request, "relay_enabled", kRelayTunnel, misc)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    Finish(response, WriteMiscConfigToFile(misc));
}

// ---- check_availability

namespace {

// Register sites of the regions that serve only accounts that passed
// real-name validation.
constexpr char kValidatedRegionSite[] = R"(^(cnc|vac)(\.).*)";

int Availability(const Json::Value& site) {
    // A pattern that does not compile restricts nothing.
    if (!PosixPattern(kValidatedRegionSite).Matches(site["host"].asCString())) return kApiSuccess;
    return orvokivo::User().GetIsRealnameValidationPass() ? kApiSuccess : kApiErrNotAvailable;
}

}  // namespace

// Always a success answer: the verdict and its reason are the data.
void CheckAvailability_v3(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value site(Json::objectValue);
    int code = GetRegisterSiteWithCn(site);
    if (code != kApiSuccess) {
        FARLINK_LOG("Failed to get register site host");
    } else {
        code = Availability(site);
    }
    Json::Value result(Json::objectValue);
    result["available"] = code == kApiSuccess;
    result["code"] = code;
    response->SetSuccess(result);
}
