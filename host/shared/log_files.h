// The host's logs are opened by the supervisor, which may create them where
// the service user could not, and written by the front.
#pragma once

#include <farlink/unique_fd.h>

#include <string>

namespace farlink::host {

// Opens (creating, appending) one of the host's logs; `what` names it in
// the error. Throws StartupError.
UniqueFd OpenLogForAppend(const std::string& path, const std::string& what);
UniqueFd OpenAccessLog(const std::string& path);

}  // namespace farlink::host
