// Running programs: always posix_spawn with an argument vector. A fork of a
// large host process would copy its page tables, and a shell would re-parse
// arguments that may hold user input.
#include <fcntl.h>
#include <orvo/core.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "platform_files.h"

extern char** environ;

namespace {

using orvo::platform::UniqueFd;

struct SpawnRequest {
    const char* path = nullptr;
    std::vector<const char*> args;  // argv[1..]; argv[0] is the path
    bool detach = false;            // new session, standard streams on /dev/null
    int childStdin = -1;            // descriptor that becomes the child's fd 0
    int childStdout = -1;           // descriptor that becomes the child's fd 1
};

class SpawnFileActions {
public:
    SpawnFileActions() : error_(posix_spawn_file_actions_init(&actions_)) {}
    ~SpawnFileActions() {
        if (error_ == 0) {
            posix_spawn_file_actions_destroy(&actions_);
        }
    }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;

    // Each step records the first failure; Error() reports it.
    void Open(int fd, const char* path, int flags) {
        Record(posix_spawn_file_actions_addopen(&actions_, fd, path, flags, 0));
    }
    void Dup2(int from, int to) { Record(posix_spawn_file_actions_adddup2(&actions_, from, to)); }
    void CloseFrom(int lowest) {
        Record(posix_spawn_file_actions_addclosefrom_np(&actions_, lowest));
    }
    int Error() const { return error_; }
    const posix_spawn_file_actions_t* Get() const { return &actions_; }

private:
    void Record(int error) {
        if (error_ == 0) {
            error_ = error;
        }
    }
    posix_spawn_file_actions_t actions_;
    int error_;
};

class SpawnAttributes {
public:
    SpawnAttributes() : error_(posix_spawnattr_init(&attributes_)) {}
    ~SpawnAttributes() {
        if (error_ == 0) {
            posix_spawnattr_destroy(&attributes_);
        }
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    // The child starts with no blocked signals and default dispositions,
    // whatever the host process has set up for itself.
    void CleanSignals(bool newSession) {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        sigdelset(&all, SIGKILL);
        sigdelset(&all, SIGSTOP);
        short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        if (newSession) {
            flags |= POSIX_SPAWN_SETSID;
        }
        Record(posix_spawnattr_setsigmask(&attributes_, &none));
        Record(posix_spawnattr_setsigdefault(&attributes_, &all));
        Record(posix_spawnattr_setflags(&attributes_, flags));
    }
    int Error() const { return error_; }
    const posix_spawnattr_t* Get() const { return &attributes_; }

private:
    void Record(int error) {
        if (error_ == 0) {
            error_ = error;
        }
    }
    posix_spawnattr_t attributes_;
    int error_;
};

// Children whose reaper thread could not be started; collected on later runs.
class OrphanList {
public:
    void Add(pid_t pid) {
        std::lock_guard<std::mutex> lock(mutex_);
        pids_.push_back(pid);
    }
    void Sweep() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<pid_t> remaining;
        for (pid_t pid : pids_) {
            int status;
            if (::waitpid(pid, &status, WNOHANG) == 0) {
                remaining.push_back(pid);
            }
        }
        pids_.swap(remaining);
    }

private:
    std::mutex mutex_;
    std::vector<pid_t> pids_;
};

OrphanList& Orphans() {
    static OrphanList orphans;
    return orphans;
}

// Returns the child's pid, or -1 with errno set. posix_spawn reports a
// program that cannot be executed (missing, not executable) through its
// result, so that failure surfaces here rather than as an exit status.
pid_t Spawn(const SpawnRequest& request) {
    Orphans().Sweep();
    SpawnFileActions actions;
    if (request.detach) {
        actions.Open(STDIN_FILENO, "/dev/null", O_RDONLY);
        actions.Open(STDOUT_FILENO, "/dev/null", O_WRONLY);
        actions.Open(STDERR_FILENO, "/dev/null", O_WRONLY);
    }
    if (request.childStdin >= 0) {
        actions.Dup2(request.childStdin, STDIN_FILENO);
    }
    if (request.childStdout >= 0) {
        actions.Dup2(request.childStdout, STDOUT_FILENO);
    }
    // Descriptors the host opened without close-on-exec stay with the host.
    actions.CloseFrom(STDERR_FILENO + 1);

    SpawnAttributes attributes;
    attributes.CleanSignals(request.detach);

    int error = actions.Error() != 0 ? actions.Error() : attributes.Error();
    if (error == 0) {
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(request.path));
        for (const char* arg : request.args) {
            argv.push_back(const_cast<char*>(arg));
        }
        argv.push_back(nullptr);
        pid_t pid = -1;
        error =
            posix_spawn(&pid, request.path, actions.Get(), attributes.Get(), argv.data(), environ);
        if (error == 0) {
            return pid;
        }
    }
    errno = error;
    return -1;
}

int WaitForExit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

// The reaper blocks every signal so that signals meant for the host are
// never delivered to (and acted on in) a thread the host does not know.
void ReapInBackground(pid_t pid) {
    int savedErrno = errno;
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        std::thread([pid] { WaitForExit(pid); }).detach();
    } catch (const std::system_error&) {
        Orphans().Add(pid);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    errno = savedErrno;
}

std::vector<const char*> CollectArgs(va_list list) {
    std::vector<const char*> args;
    for (const char* arg = va_arg(list, const char*); arg != nullptr;
         arg = va_arg(list, const char*)) {
        args.push_back(arg);
    }
    return args;
}

int RunAndWait(const SpawnRequest& request) {
    pid_t pid = Spawn(request);
    return pid < 0 ? -1 : WaitForExit(pid);
}

}  // namespace

int OLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    SpawnRequest request;
    request.path = path;
    for (const char* arg : {arg1, arg2, arg3, arg4}) {
        if (arg == nullptr) {
            break;
        }
        request.args.push_back(arg);
    }
    return RunAndWait(request);
}

int OLIBCExecl(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    SpawnRequest request;
    request.path = path;
    request.args = CollectArgs(list);
    va_end(list);
    request.detach = (flags & OLIBC_EXEC_DETACH) != 0;

    if (path == nullptr || (flags & ~(OLIBC_EXEC_NOWAIT | OLIBC_EXEC_DETACH)) != 0) {
        errno = EINVAL;
        return -1;
    }
    if ((flags & OLIBC_EXEC_NOWAIT) == 0) {
        return RunAndWait(request);
    }
    pid_t pid = Spawn(request);
    if (pid < 0) {
        return -1;
    }
    ReapInBackground(pid);
    return 0;
}

FILE* OLIBCPopen(const char* path, const char* mode, ...) {
    va_list list;
    va_start(list, mode);
    SpawnRequest request;
    request.path = path;
    request.args = CollectArgs(list);
    va_end(list);

    bool reading = mode != nullptr && mode[0] == 'r';
    bool writing = mode != nullptr && mode[0] == 'w';
    if (path == nullptr || !(reading || writing) || mode[1] != '\0') {
        errno = EINVAL;
        return nullptr;
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return nullptr;
    }
    UniqueFd readEnd(fds[0]);
    UniqueFd writeEnd(fds[1]);
    UniqueFd& parentEnd = reading ? readEnd : writeEnd;
    UniqueFd& childEnd = reading ? writeEnd : readEnd;
    (reading ? request.childStdout : request.childStdin) = childEnd.Get();

    pid_t pid = Spawn(request);
    if (pid < 0) {
        return nullptr;
    }
    childEnd.Reset();
    ReapInBackground(pid);
    FILE* stream = ::fdopen(parentEnd.Get(), reading ? "r" : "w");
    if (stream != nullptr) {
        parentEnd.Release();
    }
    return stream;
}
