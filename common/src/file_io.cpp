#include <dirent.h>
#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

namespace farlink {

namespace {

// Removes the named temporary file unless the rename took it over.
class TempFileGuard {
public:
    TempFileGuard() = default;
    ~TempFileGuard() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    TempFileGuard(const TempFileGuard&) = delete;
    TempFileGuard& operator=(const TempFileGuard&) = delete;

    void Hold(std::string path) { path_ = std::move(path); }
    const std::string& Path() const { return path_; }
    void Release() { path_.clear(); }

private:
    std::string path_;
};

bool SyncDirectory(const std::string& dir) {
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.Valid() && fsync(fd.Get()) == 0;
}

std::string BaseNameOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Temporary names carry their writer's process id ("NAME.tmp.PID.XXXXXX"),
// so that the next writer can tell the leftovers of a writer killed between
// naming and renaming from a live writer's file.
std::string TempPrefix(const std::string& path) { return path + ".tmp."; }

bool WriterIsGone(const std::string& suffix) {
    char* end = nullptr;
    const long pid = std::strtol(suffix.c_str(), &end, 10);
    if (end == suffix.c_str() || *end != '.' || pid <= 0 || pid == getpid()) return false;
    return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

void SweepDeadWritersFiles(const std::string& path) {
    const std::string dir = DirectoryOf(path);
    const std::string prefix = BaseNameOf(TempPrefix(path));
    std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
    if (!listing) return;
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) == 0 &&
            WriterIsGone(name.substr(prefix.size()))) {
            unlinkat(dirfd(listing.get()), name.c_str(), 0);
        }
    }
}

bool WriteAndSync(int fd, const std::string& content, mode_t mode) {
    return WriteAll(fd, content.data(), content.size()) && fsync(fd) == 0 && fchmod(fd, mode) == 0;
}

// Calls `make(name)` with fresh temporary names beside `path` until one is
// not taken (a name can be, by a dead writer whose process id came back).
template <typename Make>
bool OnFreshTempName(const std::string& path, TempFileGuard& guard, Make make) {
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = TempPrefix(path) + std::to_string(getpid()) + "." +
                           std::to_string(counter.fetch_add(1));
        if (make(name)) {
            guard.Hold(std::move(name));
            return true;
        }
        if (errno != EEXIST) return false;
    }
    return false;
}

// The content in a file that has a temporary name beside `path` and is on
// disk. The file has no name while it is written, so a writer killed then
// leaves nothing; where the file system cannot make unnamed files, it is
// written under its temporary name.
bool PrepareTempFile(const std::string& path, const std::string& content, mode_t mode,
                     TempFileGuard& guard) {
    UniqueFd fd(open(DirectoryOf(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (fd.Valid()) {
        const std::string self = "/proc/self/fd/" + std::to_string(fd.Get());
        return WriteAndSync(fd.Get(), content, mode) &&
               OnFreshTempName(path, guard, [&](const std::string& name) {
                   return linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(),
                                 AT_SYMLINK_FOLLOW) == 0;
               });
    }
    return OnFreshTempName(
               path, guard,
               [&](const std::string& name) {
                   fd.Reset(open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
                   return fd.Valid();
               }) &&
           WriteAndSync(fd.Get(), content, mode) && fd.Close();
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
    SweepDeadWritersFiles(path);
    TempFileGuard guard;
    if (!PrepareTempFile(path, content, mode, guard)) return false;
    if (rename(guard.Path().c_str(), path.c_str()) != 0) return false;
    guard.Release();
    // The new content is in place; a failed directory flush only weakens
    // durability across a power loss, so it does not turn the write into a
    // failure the caller would try to undo.
    SyncDirectory(DirectoryOf(path));
    return true;
}

}  // namespace farlink
