#include "module_loader.h"

#include <dlfcn.h>

#include "startup_error.h"

namespace farlink::host {

void LoadedModule::Unloader::operator()(void* handle) const { dlclose(handle); }

LoadedModule LoadedModule::Load(const std::string& path) {
    std::unique_ptr<void, Unloader> handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (!handle) throw StartupError(std::string("cannot load module: ") + dlerror());

    dlerror();
    void* symbol = dlsym(handle.get(), ORVO::kGetAPITableSymbol);
    if (symbol == nullptr) {
        throw StartupError(std::string("module ") + path + " does not export " +
                           ORVO::kGetAPITableSymbol);
    }
    auto getTable = reinterpret_cast<ORVO::GetAPITableFn>(symbol);
    ApiTable table = ApiTable::FromRows(getTable());
    return LoadedModule(std::move(handle), std::move(table));
}

}  // namespace farlink::host
