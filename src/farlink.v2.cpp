// ORVO.Core.Farlink version 2.
#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {
constexpr char kLogSource[] = "farlink.v2";
}  // namespace

void Set_v2(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    bool enabled = false;
    if (!ReadBoolParam(*request, "enabled", enabled)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    if (SwitchRelay(enabled) != 0) {
        FARLINK_LOG("Fail to notify orvorelayd");
        return Finish(response, kApiErrFailed);
    }
    Finish(response, kApiSuccess);
}
