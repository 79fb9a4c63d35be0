// The index of a module's API table: which handler serves a given
// (API name, version, method), and why there is none when there is none.
#pragma once

#include <orvo/webapi.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host_errors.h"

namespace farlink::host {

// A table longer than this is taken for one that lost its terminator.
constexpr std::size_t kMaxTableRows = 1024;

// A row without its handler: what the process that routes requests knows
// of a table that only the workers hold.
struct RowName {
    std::string api;
    std::uint32_t version = 0;
    std::string method;
};

class ApiTable {
public:
    struct Lookup {
        bool found = false;
        ORVO::APIHandler handler = nullptr;     // null in a table built from names
        HostError error = HostError::kUnknown;  // why nothing was found
    };

    // Validates the rows up to the all-zero terminator; throws StartupError
    // naming the first bad row.
    static ApiTable FromRows(const ORVO::APITableEntry* rows);
    // The index of a table already validated elsewhere, without handlers.
    static ApiTable FromNames(const std::vector<RowName>& rows);

    Lookup Find(const std::string& api, std::uint32_t version, const std::string& method) const;
    std::size_t size() const { return handlers_.size(); }
    const std::vector<RowName>& Names() const { return names_; }

private:
    void Insert(RowName row, ORVO::APIHandler handler);
    void Add(std::size_t index, const ORVO::APITableEntry& row);

    std::vector<RowName> names_;                                  // in table order
    std::unordered_map<std::string, ORVO::APIHandler> handlers_;  // api/version/method
    std::unordered_set<std::string> apiVersions_;                 // api/version
    std::unordered_set<std::string> apis_;
};

}  // namespace farlink::host
