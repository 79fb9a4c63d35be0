#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace farlink {

namespace {

// Removes the temporary file unless the rename took it over.
class TempFileGuard {
public:
    explicit TempFileGuard(std::string path) : path_(std::move(path)) {}
    ~TempFileGuard() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    TempFileGuard(const TempFileGuard&) = delete;
    TempFileGuard& operator=(const TempFileGuard&) = delete;

    void Release() { path_.clear(); }

private:
    std::string path_;
};

bool SyncDirectory(const std::string& dir) {
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.Valid() && fsync(fd.Get()) == 0;
}

}  // namespace

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

std::string DirectoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode) {
    if (path.empty() || path.back() == '/') return false;
    std::string pattern = path + ".tmpXXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');

    UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
    if (!fd.Valid()) return false;
    TempFileGuard guard(name.data());

    if (!WriteAll(fd.Get(), content.data(), content.size()) || fsync(fd.Get()) != 0 ||
        fchmod(fd.Get(), mode) != 0 || !fd.Close()) {
        return false;
    }
    if (rename(name.data(), path.c_str()) != 0) return false;
    guard.Release();
    // The new content is in place; a failed directory flush only weakens
    // durability across a power loss, so it does not turn the write into a
    // failure the caller would try to undo.
    SyncDirectory(DirectoryOf(path));
    return true;
}

}  // namespace farlink
