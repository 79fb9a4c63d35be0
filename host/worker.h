// A worker process: loads the module as root, keeps root only in its saved
// ids, greets with the table's rows, then runs one request at a time from
// its channel until the channel closes.
#pragma once

#include <string>

#include "privileges.h"

namespace farlink::host {

[[noreturn]] void RunWorker(const std::string& modulePath, const ServiceIds& ids, int channel);

}  // namespace farlink::host
