// The index of a module's API table: which handler serves a given
// (API name, version, method), and why there is none when there is none.
#pragma once

#include <orvo/webapi.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "host_errors.h"

namespace farlink::host {

// A table longer than this is taken for one that lost its terminator.
constexpr std::size_t kMaxTableRows = 1024;

class ApiTable {
public:
    struct Lookup {
        ORVO::APIHandler handler = nullptr;  // null: `error` says why
        HostError error = HostError::kUnknown;
    };

    // Validates the rows up to the all-zero terminator; throws StartupError
    // naming the first bad row.
    static ApiTable FromRows(const ORVO::APITableEntry* rows);

    Lookup Find(const std::string& api, std::uint32_t version, const std::string& method) const;
    std::size_t size() const { return handlers_.size(); }

private:
    void Add(std::size_t index, const ORVO::APITableEntry& row);

    std::unordered_map<std::string, ORVO::APIHandler> handlers_;  // api/version/method
    std::unordered_set<std::string> apiVersions_;                 // api/version
    std::unordered_set<std::string> apis_;
};

}  // namespace farlink::host
