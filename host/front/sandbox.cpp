#include "sandbox.h"

#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "startup_error.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define FARLINK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define FARLINK_SANITIZED 1
#endif
#endif

namespace farlink::host {

namespace {

// The event loop, sockets and worker channels, memory, time, OpenSSL's
// randomness, signals, and the end. Reading files (the admin page's) is
// allowed below with its own condition.
constexpr const char* kAllowed[] = {
    "accept",       "accept4",        "brk",          "clock_gettime", "clock_nanosleep",
    "close",        "epoll_create1",  "epoll_ctl",    "epoll_pwait",   "epoll_wait",
    "exit",         "exit_group",     "fstat",        "futex",         "getegid",
    "geteuid",      "getgid",         "getpeername",  "getpid",        "getrandom",
    "getsockname",  "getsockopt",     "gettid",       "gettimeofday",  "getuid",
    "lseek",        "madvise",        "mmap",         "mprotect",      "mremap",
    "munmap",       "nanosleep",      "newfstatat",   "pipe2",         "pread64",
    "read",         "readv",          "recvfrom",     "recvmsg",       "restart_syscall",
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "sched_yield",   "sendmsg",
    "sendto",       "setsockopt",     "shutdown",     "sigaltstack",   "statx",
    "tgkill",       "write",          "writev",
};

// Every file-system right of Landlock's first version.
constexpr __u64 kLandlockFsV1 =
    LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_READ_FILE |
    LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
    LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM;

struct FilterFree {
    void operator()(void* filter) const { seccomp_release(filter); }
};

void Check(int result, const char* what) {
    if (result < 0) {
        throw StartupError(std::string("cannot confine the front (") + what +
                           "): " + std::strerror(-result));
    }
}

}  // namespace

// Without CAP_SETPCAP (a service manager may leave it out of the host's own
// bounding set) nothing can be dropped, and the set the host was started
// with stands: with no_new_privs and no root id it grants nothing anyway.
void RenouncePrivileges() {
    for (int cap = 0; cap <= CAP_LAST_CAP; ++cap) {
        if (prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0 && errno != EINVAL && errno != EPERM) {
            throw StartupError("cannot drop capability " + std::to_string(cap) +
                               " from the bounding set: " + std::strerror(errno));
        }
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        throw StartupError(std::string("cannot set no_new_privs: ") + std::strerror(errno));
    }
}

bool ConfineFiles(const std::string& readableRoot) {
#ifdef FARLINK_SANITIZED
    (void)readableRoot;
    return false;
#else
    const long abi =
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (abi < 1) return false;
    landlock_ruleset_attr ruleset{};
    // Rights of later versions (truncating) are system calls the filter
    // below refuses anyway.
    ruleset.handled_access_fs = kLandlockFsV1 | (abi >= 2 ? LANDLOCK_ACCESS_FS_REFER : 0);
    const UniqueFd rules(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &ruleset, sizeof ruleset, 0)));
    if (!rules)
        throw StartupError(std::string("cannot confine the front's files: ") +
                           std::strerror(errno));
    if (!readableRoot.empty()) {
        const UniqueFd root(open(readableRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        landlock_path_beneath_attr beneath{};
        beneath.allowed_access = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
        beneath.parent_fd = root.Get();
        if (!root || syscall(SYS_landlock_add_rule, rules.Get(), LANDLOCK_RULE_PATH_BENEATH,
                             &beneath, 0) != 0) {
            throw StartupError("cannot let the front read " + readableRoot + ": " +
                               std::strerror(errno));
        }
    }
    if (syscall(SYS_landlock_restrict_self, rules.Get(), 0) != 0) {
        throw StartupError(std::string("cannot confine the front's files: ") +
                           std::strerror(errno));
    }
    return true;
#endif
}

bool ConfineSystemCalls() {
#ifdef FARLINK_SANITIZED
    return false;
#else
    std::unique_ptr<void, FilterFree> filter(seccomp_init(SCMP_ACT_KILL_PROCESS));
    if (!filter) throw StartupError("cannot confine the front: seccomp_init failed");
    for (const char* name : kAllowed) {
        const int call = seccomp_syscall_resolve_name(name);
        if (call == __NR_SCMP_ERROR) continue;  // not a call on this architecture
        Check(seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, call, 0), name);
    }
    // Files are opened to be read, never written or made.
    Check(seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, SCMP_SYS(openat), 1,
                           SCMP_A2(SCMP_CMP_MASKED_EQ, O_ACCMODE | O_CREAT | O_TRUNC, O_RDONLY)),
          "openat");
    // The event buffers ask how much a socket holds.
    Check(seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, SCMP_SYS(ioctl), 1,
                           SCMP_A1(SCMP_CMP_EQ, FIONREAD)),
          "ioctl");
    Check(seccomp_load(filter.get()), "load");
    return true;
#endif
}

}  // namespace farlink::host
