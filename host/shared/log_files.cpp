#include "log_files.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "startup_error.h"

namespace farlink::host {

UniqueFd OpenLogForAppend(const std::string& path, const std::string& what) {
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
    if (!fd) throw StartupError("cannot open " + what + " " + path + ": " + std::strerror(errno));
    return fd;
}

UniqueFd OpenAccessLog(const std::string& path) { return OpenLogForAppend(path, "access log"); }

}  // namespace farlink::host
