#include <orvo/core.h>
#include <orvo/paths.h>

#include "platform_files.h"

using orvo::platform::FindMember;

int OLIBRelaydGetPortalDomain(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) {
        return -1;
    }
    buffer[0] = '\0';
    Json::Value conf;
    if (orvo::platform::ReadJsonFile(ORVO::Paths::kRelaydConf, conf) !=
        orvo::platform::JsonReadResult::kOk) {
        return -1;
    }
    const Json::Value* control = FindMember(conf, "server_control");
    const Json::Value* domain = control ? FindMember(*control, "portal_domain") : nullptr;
    if (domain == nullptr || !domain->isString()) {
        return -1;
    }
    orvo::platform::CopyTerminated(domain->asString(), buffer, static_cast<std::size_t>(size));
    return 0;
}
