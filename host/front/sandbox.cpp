#include "sandbox.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>

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
