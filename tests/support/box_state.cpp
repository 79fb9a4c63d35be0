#include "box_state.h"

#include <orvo/paths.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include "test_files.h"

extern char** environ;

namespace farlink_test {

namespace {

namespace fs = std::filesystem;

// The box's fixed paths outside the relay's directory, by the name of their
// copy in <run>/initial.
const std::pair<const char*, const char*> kSingleFiles[] = {
    {"orvoinfo.conf", ORVO::Paths::kHostInfo},
    {"account.conf", ORVO::Paths::kKivoAccount},
    {"resolv.conf", "/etc/resolv.conf"},
};

std::string Initial(const std::string& name) { return BoxRunDir() + "/initial/" + name; }

std::string InBox(const fs::path& initial) {
    return std::string(ORVO::Paths::kRelaydConfDir) + "/" + initial.filename().string();
}

BoxState ReadState(bool initial) {
    BoxState state;
    std::error_code ignored;
    const std::string relayd = initial ? Initial("orvorelayd") : ORVO::Paths::kRelaydConfDir;
    for (const auto& entry : fs::directory_iterator(relayd, ignored))
        state[InBox(entry.path())] = ReadFile(entry.path());
    for (const auto& [name, path] : kSingleFiles)
        state[path] = ReadFile(initial ? Initial(name) : path);
    return state;
}

[[noreturn]] void Stop(const char* why) {
    std::perror(why);
    std::abort();
}

}  // namespace

std::string BoxRunDir() {
    const char* dir = std::getenv("FARLINK_BOX_RUN_DIR");
    return dir != nullptr ? dir : "";
}

ScopedServiceUser::ScopedServiceUser() {
    const char* name = std::getenv("FARLINK_BOX_SERVICE_USER");
    const passwd* user = name != nullptr ? getpwnam(name) : nullptr;
    if (user == nullptr) Stop("no service user in the box");
    uid_ = user->pw_uid;
    gid_ = user->pw_gid;
    // Group first: once the user id is gone the group can no longer change.
    if (setresgid(-1, gid_, -1) != 0 || setresuid(-1, uid_, -1) != 0)
        Stop("cannot take the service user's ids");
}

ScopedServiceUser::~ScopedServiceUser() {
    if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) Stop("cannot return to root");
}

int Relayd(const std::string& command) {
    std::string program = ORVO::Paths::kRelaydProgram, option = "--farlink", word = command;
    char* args[] = {program.data(), option.data(), word.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, args[0], nullptr, nullptr, args, environ) != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

BoxState ReadBoxState() { return ReadState(false); }

const BoxState& InitialBoxState() {
    static const BoxState initial = ReadState(true);
    return initial;
}

bool RestoreBox() {
    bool restored = !fs::exists(ORVO::Paths::kRelaydPidFile) || Relayd("off") == 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(ORVO::Paths::kRelaydConfDir, error))
        if (!fs::exists(fs::path(Initial("orvorelayd")) / entry.path().filename()))
            fs::remove_all(entry, error);
    std::vector<std::pair<fs::path, fs::path>> copies;
    for (const auto& entry : fs::directory_iterator(Initial("orvorelayd"), error))
        copies.emplace_back(entry.path(), InBox(entry.path()));
    for (const auto& [name, path] : kSingleFiles) copies.emplace_back(Initial(name), path);
    for (const auto& [from, to] : copies) {
        // A test may have put a directory where a file belongs.
        if (!fs::is_regular_file(to)) fs::remove_all(to, error);
        // In place: the copy truncates and rewrites an existing file.
        restored &= fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
    }
    return restored;
}

}  // namespace farlink_test
