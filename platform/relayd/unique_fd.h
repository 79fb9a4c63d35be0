// Owner of a file descriptor.
#pragma once

#include <unistd.h>

namespace ORVO {
namespace Relay {
namespace internal {

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) close(fd_);
    }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            if (fd_ >= 0) close(fd_);
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now, so that a failing close (a late write error) is seen.
    bool Close() {
        const int fd = fd_;
        fd_ = -1;
        return fd >= 0 && close(fd) == 0;
    }

private:
    int fd_;
};

// Writes all of `data`; false on an error.
bool WriteAll(int fd, const char* data, size_t size);

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
