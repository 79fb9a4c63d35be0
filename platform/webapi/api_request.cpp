#include <orvo/webapi.h>

#include <utility>

namespace ORVO {

APIRequest::APIRequest(std::string api, int version, std::string method, Json::Value params)
    : api_(std::move(api)),
      version_(version),
      method_(std::move(method)),
      params_(params.isObject() ? std::move(params) : Json::Value(Json::objectValue)) {}

bool APIRequest::HasParam(const std::string& name) const { return params_.isMember(name); }

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& defaultValue) const {
    if (name.empty()) {
        return params_;
    }
    const Json::Value* found = params_.find(name.data(), name.data() + name.size());
    return found ? *found : defaultValue;
}

}  // namespace ORVO
