// ORVO.Core.Farlink.Permission version 1.
#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {

constexpr char kLogSource[] = "farlink.permission.v1";

// The first faulty entry decides the message; presence is checked before
// types within an entry.
bool CheckEntries(const Json::Value& services) {
    for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
        const Json::Value& entry = services[index];
        if (!HasMember(entry, "id") || !HasMember(entry, "enabled")) {
            FARLINK_LOG("Invalid entry");
            return false;
        }
        if (!entry["id"].isString() || !entry["enabled"].isBool()) {
            FARLINK_LOG("Invalid type");
            return false;
        }
    }
    return true;
}

}  // namespace

void GetPermission_v1(ORVO::APIRequest* /*request*/, ORVO::APIResponse* response) {
    Json::Value result(Json::objectValue);
    result["services"] = Json::Value(Json::arrayValue);
    // The file's content is handed on as it is; only "set" checks entries.
    if (!ReadJsonFile(kServicesConfPath, result["services"])) {
        GenerateServiceConfig();
        if (!ReadJsonFile(kServicesConfPath, result["services"])) {
            FARLINK_LOG("cannot read config");
            return Finish(response, kApiErrFailed);
        }
    }
    Finish(response, kApiSuccess, result);
}

void SetPermission_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    if (!request->HasParam("services")) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    const Json::Value services = request->GetParam("services", Json::Value());
    if (!services.isArray()) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    if (!CheckEntries(services)) return Finish(response, kApiErrInvalidParam);
    // The list replaces the file whole, extra members of entries included.
    if (!WriteJsonFile(kServicesConfPath, services)) {
        FARLINK_LOG("write file[%s] failed", kServicesConfPath);
        return Finish(response, kApiErrFailed);
    }
    if (NotifyOrvorelayd() == -1) {
        FARLINK_LOG("Fail to set notify orvorelayd");
        return Finish(response, kApiErrFailed);
    }
    Finish(response, kApiSuccess);
}
