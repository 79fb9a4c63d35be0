#include "emulation.h"

#include <json/value.h>

#include "json_file.h"

namespace orvorelayd {
namespace {

void TakeOptionalWord(const Json::Value& doc, const char* key, std::optional<std::string>& out) {
    std::string word;
    if (ORVO::Relay::internal::TakeString(doc, key, word)) out = word;
}

void TakeInt(const Json::Value& doc, const char* key, int& out) {
    if (doc[key].isInt()) out = doc[key].asInt();
}

}  // namespace

EmulationControls LoadEmulationControls(const char* path) {
    EmulationControls controls;
    Json::Value doc;
    if (!ORVO::Relay::internal::ReadJsonFile(path, doc) || !doc.isObject()) return controls;
    TakeOptionalWord(doc, "status_output", controls.statusOutput);
    TakeInt(doc, "start_exit", controls.startExit);
    TakeInt(doc, "stop_exit", controls.stopExit);
    TakeInt(doc, "check_failover_exit", controls.checkFailoverExit);
    ORVO::Relay::internal::TakeString(doc, "check_failover_value", controls.checkFailoverValue);
    TakeOptionalWord(doc, "force_status", controls.forceStatus);
    TakeOptionalWord(doc, "force_error", controls.forceError);
    TakeInt(doc, "heartbeat_interval", controls.heartbeatSeconds);
    if (controls.heartbeatSeconds < 1) controls.heartbeatSeconds = 1;
    return controls;
}

}  // namespace orvorelayd
