#include "api_table.h"

#include <cstring>
#include <limits>

#include "startup_error.h"

namespace farlink::host {

namespace {

// Names are NUL-terminated C strings in the module's read-only data; the
// bound keeps a corrupt pointer from sending the scan through memory.
constexpr std::size_t kMaxNameLength = 256;

bool IsTerminator(const ORVO::APITableEntry& row) {
    return row.api == nullptr && row.version == 0 && row.method == nullptr &&
           row.handler == nullptr;
}

// '\n' cannot occur in a valid name, so the joined keys cannot collide.
std::string ApiVersionKey(const std::string& api, std::uint64_t version) {
    return api + '\n' + std::to_string(version);
}

std::string HandlerKey(const std::string& api, std::uint64_t version, const std::string& method) {
    return ApiVersionKey(api, version) + '\n' + method;
}

std::string CheckedName(std::size_t index, const char* name, const char* what) {
    const std::string where = "API table row " + std::to_string(index + 1) + ": ";
    if (name == nullptr) throw StartupError(where + what + " is null");
    std::size_t length = strnlen(name, kMaxNameLength + 1);
    if (length == 0 || length > kMaxNameLength) {
        throw StartupError(where + what + " is empty or longer than " +
                           std::to_string(kMaxNameLength) + " characters");
    }
    for (std::size_t i = 0; i < length; ++i) {
        if (static_cast<unsigned char>(name[i]) <= ' ') {
            throw StartupError(where + what + " contains blanks or control characters");
        }
    }
    return std::string(name, length);
}

}  // namespace

void ApiTable::Add(std::size_t index, const ORVO::APITableEntry& row) {
    const std::string where = "API table row " + std::to_string(index + 1) + ": ";
    std::string api = CheckedName(index, row.api, "API name");
    std::string method = CheckedName(index, row.method, "method name");
    if (row.version == 0 || row.version > std::numeric_limits<std::uint32_t>::max()) {
        throw StartupError(where + "version " + std::to_string(row.version) + " is not in 1.." +
                           std::to_string(std::numeric_limits<std::uint32_t>::max()));
    }
    if (row.handler == nullptr) throw StartupError(where + "handler is null");
    if (handlers_.count(HandlerKey(api, row.version, method)) != 0) {
        throw StartupError(where + api + " version " + std::to_string(row.version) + " method " +
                           method + " is listed twice");
    }
    Insert({std::move(api), static_cast<std::uint32_t>(row.version), std::move(method)},
           row.handler);
}

void ApiTable::Insert(RowName row, ORVO::APIHandler handler) {
    handlers_.emplace(HandlerKey(row.api, row.version, row.method), handler);
    apiVersions_.insert(ApiVersionKey(row.api, row.version));
    apis_.insert(row.api);
    names_.push_back(std::move(row));
}

ApiTable ApiTable::FromNames(const std::vector<RowName>& rows) {
    ApiTable table;
    for (const RowName& row : rows) table.Insert(row, nullptr);
    return table;
}

ApiTable ApiTable::FromRows(const ORVO::APITableEntry* rows) {
    if (rows == nullptr) throw StartupError("GetAPITable returned no table");
    ApiTable table;
    for (std::size_t index = 0; !IsTerminator(rows[index]); ++index) {
        if (index == kMaxTableRows) {
            throw StartupError("API table has no end within " + std::to_string(kMaxTableRows) +
                               " rows");
        }
        table.Add(index, rows[index]);
    }
    if (table.handlers_.empty()) throw StartupError("API table is empty");
    return table;
}

ApiTable::Lookup ApiTable::Find(const std::string& api, std::uint32_t version,
                                const std::string& method) const {
    if (auto found = handlers_.find(HandlerKey(api, version, method)); found != handlers_.end()) {
        return {true, found->second, HostError::kUnknown};
    }
    if (apiVersions_.count(ApiVersionKey(api, version)) != 0) {
        return {false, nullptr, HostError::kUnknownMethod};
    }
    if (apis_.count(api) != 0) return {false, nullptr, HostError::kUnsupportedVersion};
    return {false, nullptr, HostError::kUnknownApi};
}

}  // namespace farlink::host
