// The one owner of a file descriptor, for every part of the tree.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace farlink {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }
    explicit operator bool() const { return Valid(); }

    int Release() { return std::exchange(fd_, -1); }
    // Keeps errno: descriptors are dropped on error paths too, where the
    // caller still has to report the errno of the step that failed.
    void Reset(int fd = -1) {
        if (fd_ >= 0) {
            const int savedErrno = errno;
            ::close(fd_);
            errno = savedErrno;
        }
        fd_ = fd;
    }
    // Closes now, so that a failing close (a late write error) is seen.
    bool Close() {
        const int fd = Release();
        return fd >= 0 && ::close(fd) == 0;
    }

private:
    int fd_ = -1;
};

}  // namespace farlink
