// A file descriptor with one owner.
#pragma once

#include <unistd.h>

namespace farlink::box {

// Owns one file descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = other.Release();
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    void Reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    int fd_ = -1;
};

}  // namespace farlink::box
