// Outcome of the last alias request per alias (alias_status.conf).
#include <orvo/paths.h>
#include <orvo/relayd.h>

#include "json_file.h"
#include "root_access.h"

namespace ORVO {
namespace Relay {

AliasStatus::AliasStatus() = default;

bool AliasStatus::GetStatus(const std::string& alias, std::string& status,
                            std::string& error) const {
    Json::Value records;
    if (alias.empty() || !internal::ReadJsonFile(Paths::kAliasStatus, records) ||
        !records.isObject()) {
        return false;
    }
    const Json::Value& record = records[alias];
    std::string recordStatus;
    if (!internal::TakeString(record, "status", recordStatus)) return false;
    status = recordStatus;
    error.clear();
    internal::TakeString(record, "error", error);
    return true;
}

bool AliasStatus::SetStatus(const std::string& alias, const std::string& status,
                            const std::string& error, bool save) {
    if (alias.empty()) return false;
    // The object keeps nothing of its own: a record not saved has nowhere to go.
    if (!save) return true;
    Json::Value record(Json::objectValue);
    record["status"] = status;
    record["error"] = error;
    // Callers record the outcome of an alias request with their own ids.
    const internal::ScopedRootAccess root;
    return internal::UpdateJsonObjectFile(Paths::kAliasStatus, Json::Value(Json::objectValue),
                                          [&](Json::Value& records) { records[alias] = record; });
}

}  // namespace Relay
}  // namespace ORVO
