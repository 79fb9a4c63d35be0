#include "handler_common.h"

#include "api_table.h"

namespace {

bool FetchParam(const ORVO::APIRequest& request, const char* name, Json::Value& value) {
    if (!request.HasParam(name)) return false;
    value = request.GetParam(name, Json::Value());
    return true;
}

}  // namespace

bool ReadBoolParam(const ORVO::APIRequest& request, const char* name, bool& value) {
    Json::Value param;
    if (!FetchParam(request, name, param) || !param.isConvertibleTo(Json::booleanValue)) {
        return false;
    }
    value = param.asBool();
    return true;
}

bool ReadStringParam(const ORVO::APIRequest& request, const char* name, std::string& value) {
    Json::Value param;
    if (!FetchParam(request, name, param) || !param.isConvertibleTo(Json::stringValue)) {
        return false;
    }
    value = param.asString();
    return true;
}

void Finish(ORVO::APIResponse* response, int code, const Json::Value& data) {
    if (code == kApiSuccess) {
        response->SetSuccess(data);
    } else {
        response->SetError(code, Json::Value());
    }
}

bool HasMember(const Json::Value& document, const char* key) {
    return document.isObject() && document.isMember(key);
}

Json::Value MemberOrNull(const Json::Value& document, const char* key) {
    return HasMember(document, key) ? document[key] : Json::Value();
}

bool OverwriteMiscItem(const ORVO::APIRequest& request, const char* required, const char* key,
                       ORVO::Relay::MiscConf& misc) {
    if (!request.HasParam(required)) return false;
    misc.OverwriteItem(key, request.GetParam("", Json::Value()));
    return true;
}
