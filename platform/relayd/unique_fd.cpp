#include "unique_fd.h"

#include <cerrno>

namespace ORVO {
namespace Relay {
namespace internal {

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
