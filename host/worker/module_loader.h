// Loads a web API module the way the platform's server does: dlopen with
// immediate binding, one call to GetAPITable, and a validated index.
#pragma once

#include <memory>
#include <string>

#include "api_table.h"

namespace farlink::host {

class LoadedModule {
public:
    // Throws StartupError with the loader's reason.
    static LoadedModule Load(const std::string& path);

    const ApiTable& Table() const { return table_; }

private:
    struct Unloader {
        void operator()(void* handle) const;
    };

    LoadedModule(std::unique_ptr<void, Unloader> handle, ApiTable table)
        : handle_(std::move(handle)), table_(std::move(table)) {}

    std::unique_ptr<void, Unloader> handle_;
    ApiTable table_;
};

}  // namespace farlink::host
