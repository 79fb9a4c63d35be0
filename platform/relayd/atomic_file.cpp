#include "atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "unique_fd.h"

namespace ORVO {
namespace Relay {
namespace internal {

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

std::string DirectoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool SyncDirectory(const std::string& dir) {
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && fsync(fd.get()) == 0;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode) {
    if (path.empty() || path.back() == '/') return false;
    std::string pattern = path + ".tmpXXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');

    UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
    if (!fd.valid()) return false;
    TempFileGuard guard(name.data());

    if (!WriteAll(fd.get(), content.data(), content.size()) || fsync(fd.get()) != 0 ||
        fchmod(fd.get(), mode) != 0 || !fd.Close()) {
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

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
