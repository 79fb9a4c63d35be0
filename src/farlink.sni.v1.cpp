// ORVO.Core.Farlink.SNI version 1.
#include <string>

#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {
constexpr char kLogSource[] = "farlink.sni.v1";
}  // namespace

void SetSNI_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    // This method answers success with an empty object, not with null.
    const Json::Value done(Json::objectValue);
    bool enabled = false;
    if (!ReadBoolParam(*request, "enabled", enabled)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    if (!enabled) return Finish(response, DisableFarlinkSNI() ? kApiSuccess : kApiErrFailed, done);

    // The library judges the domain; an empty one is passed on as well.
    std::string domain;
    if (!ReadStringParam(*request, "domain_name", domain)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    Finish(response, EnableFarlinkSNI(domain) ? kApiSuccess : kApiErrFailed, done);
}
