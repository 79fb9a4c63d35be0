#include "private_root.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

namespace farlink_test {
namespace {

bool Fail(std::string* error, const std::string& step) {
    if (error != nullptr) *error = step + ": " + std::strerror(errno);
    return false;
}

// Mount points are written with spaces and the like as octal escapes; the
// kernel escapes every backslash too.
std::string UnescapeMountPath(std::string path) {
    for (auto at = path.find('\\'); at != std::string::npos && at + 3 < path.size();
         at = path.find('\\', at + 1))
        path.replace(at, 4, 1, static_cast<char>(std::stoi(path.substr(at + 1, 3), nullptr, 8)));
    return path;
}

struct SavedFile {
    std::string path;
    std::string content;
    mode_t mode;
};

// Files mounted over paths under `dir` are hidden by an overlay on `dir`
// (it only sees the underlying file system), so their content is kept to be
// written back into the overlay.
std::vector<SavedFile> SaveMountedFiles(const std::string& dir) {
    std::vector<SavedFile> saved;
    std::ifstream mountinfo("/proc/self/mountinfo");
    std::string line;
    while (std::getline(mountinfo, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        std::string path = UnescapeMountPath(mountPoint);
        struct stat st;
        if (path.compare(0, dir.size() + 1, dir + "/") != 0 || ::stat(path.c_str(), &st) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        std::ifstream in(path, std::ios::binary);
        std::ostringstream content;
        content << in.rdbuf();
        saved.push_back({path, content.str(), static_cast<mode_t>(st.st_mode & 07777)});
    }
    return saved;
}

bool MountOverlay(const std::string& dir, const std::string& scratch, std::string* error) {
    std::vector<SavedFile> mounted = SaveMountedFiles(dir);
    std::string upper = scratch + dir + "-upper";
    std::string work = scratch + dir + "-work";
    if (::mkdir(upper.c_str(), 0755) != 0 || ::mkdir(work.c_str(), 0755) != 0)
        return Fail(error, "mkdir " + upper);
    std::string options = "lowerdir=" + dir + ",upperdir=" + upper + ",workdir=" + work;
    if (::mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) != 0)
        return Fail(error, "overlay on " + dir);
    for (const SavedFile& file : mounted) {
        std::ofstream out(file.path, std::ios::binary | std::ios::trunc);
        out << file.content;
        if (!out.flush() || ::chmod(file.path.c_str(), file.mode) != 0)
            return Fail(error, "restoring " + file.path);
    }
    return true;
}

bool MakeOrvoSkeleton(std::string* error) {
    if (::mkdir("/usr/orvo", 0755) != 0 && errno != EEXIST) return Fail(error, "mkdir /usr/orvo");
    if (::mount("tmpfs", "/usr/orvo", "tmpfs", 0, "mode=0755") != 0)
        return Fail(error, "tmpfs on /usr/orvo");
    for (const char* dir : {"/usr/orvo/bin", "/usr/orvo/sbin", "/usr/orvo/etc", "/usr/orvo/var",
                            "/usr/orvo/var/run"}) {
        if (::mkdir(dir, 0755) != 0) return Fail(error, std::string("mkdir ") + dir);
    }
    return true;
}

bool SetUpPrivateRoot(std::string* error) {
    if (::unshare(CLONE_NEWNS) != 0) return Fail(error, "unshare(CLONE_NEWNS)");
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return Fail(error, "making / private");
    // The overlays' upper layers live on a tmpfs that is detached once they
    // are mounted, so nothing is left in the machine's /tmp but an empty
    // directory that is removed right away.
    char scratchTemplate[] = "/tmp/farlink-private-XXXXXX";
    if (::mkdtemp(scratchTemplate) == nullptr) return Fail(error, "mkdtemp");
    std::string scratch = scratchTemplate;
    bool ok = ::mount("tmpfs", scratch.c_str(), "tmpfs", 0, "mode=0700") == 0
                  ? MountOverlay("/usr", scratch, error) && MountOverlay("/etc", scratch, error) &&
                        MakeOrvoSkeleton(error)
                  : Fail(error, "tmpfs on " + scratch);
    ::umount2(scratch.c_str(), MNT_DETACH);
    ::rmdir(scratch.c_str());
    return ok;
}

}  // namespace

bool EnterPrivateRoot(std::string* error) {
    static bool entered = false;
    if (!entered) entered = SetUpPrivateRoot(error);
    return entered;
}

}  // namespace farlink_test
