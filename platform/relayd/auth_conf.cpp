// The box's credentials at the control server (auth.conf).
#include <orvo/paths.h>
#include <orvo/relayd.h>

#include "json_file.h"
#include "root_access.h"

namespace ORVO {
namespace Relay {

AuthConf::AuthConf() = default;

bool AuthConf::ReadConf() {
    loaded_ = false;
    credentials_ = Json::Value();
    Json::Value document;
    {
        // The file is root's alone; a registration reads it with its own ids.
        const internal::ScopedRootAccess root;
        if (!internal::ReadJsonFile(Paths::kAuthConf, document)) return false;
    }
    std::string serial, apiKey;
    if (!internal::TakeString(document, "serial", serial) ||
        !internal::TakeString(document, "api_key", apiKey) || serial.empty() || apiKey.empty()) {
        return false;
    }
    credentials_["serial"] = serial;
    credentials_["api_key"] = apiKey;
    loaded_ = true;
    return true;
}

bool AuthConf::Write(Json::Value& out, bool full) const {
    if (!loaded_ || !internal::PrepareObject(out)) return false;
    out["serial"] = credentials_["serial"];
    // The key is a secret: only a full write, which goes to the control
    // server, carries it.
    if (full) out["api_key"] = credentials_["api_key"];
    return true;
}

}  // namespace Relay
}  // namespace ORVO
