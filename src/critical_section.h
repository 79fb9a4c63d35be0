// The privileged section: the effective group and user are switched to root
// for the span of one operation and switched back afterwards. Only the
// effective ids change; real and saved ids stay as the host set them.
#pragma once

#include <sys/types.h>

#include <utility>

struct SavedIds {
    uid_t euid;
    gid_t egid;
};

// Both log their trace and failures at the caller's source and line. A
// failure to gain root does not stop the caller: the operation then runs with
// the process's own rights and succeeds or fails on its own.
SavedIds EnterCriticalSection(const char* source, int line);
void LeaveCriticalSection(const char* source, int line, SavedIds saved);

class CriticalSection {
public:
    CriticalSection(const char* source, int line)
        : source_(source), line_(line), saved_(EnterCriticalSection(source, line)) {}
    ~CriticalSection() { LeaveCriticalSection(source_, line_, saved_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

private:
    const char* source_;
    int line_;
    SavedIds saved_;
};

// Runs `body` inside a privileged section and hands back its result.
template <typename Body>
auto RunPrivileged(const char* source, int line, Body&& body) -> decltype(body()) {
    CriticalSection section(source, line);
    return std::forward<Body>(body)();
}

// AS_ROOT(expression): evaluates the expression as root, logging the section
// at the line where it is written.
#define AS_ROOT(...) RunPrivileged(kLogSource, __LINE__, [&]() { return __VA_ARGS__; })
