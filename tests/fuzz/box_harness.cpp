#include "box_harness.h"

#include <orvo/paths.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "api_table.h"
#include "fuzz_check.h"

extern char** environ;

namespace farlink_fuzz {

namespace {

namespace fs = std::filesystem;

uid_t serviceUid = 0;
gid_t serviceGid = 0;

std::string RunDir() {
    const char* dir = std::getenv("FARLINK_BOX_RUN_DIR");
    return dir != nullptr ? dir : "";
}

std::string ReadWhole(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), {});
}

// The single files are bind mounts: rewritten in place, never replaced.
void WriteInPlace(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    FUZZ_CHECK(file.flush().good());
}

const char* const kSingleFiles[] = {ORVO::Paths::kHostInfo, ORVO::Paths::kKivoAccount};

BoxState ReadState(const fs::path& relaydDir, const std::string& singleFilesDir) {
    BoxState state;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(relaydDir, ignored)) {
        state[std::string(ORVO::Paths::kRelaydConfDir) + "/" + entry.path().filename().string()] =
            ReadWhole(entry.path());
    }
    for (const char* file : kSingleFiles) {
        const std::string from = singleFilesDir.empty()
                                     ? file
                                     : singleFilesDir + "/" + fs::path(file).filename().string();
        state[file] = ReadWhole(from);
    }
    return state;
}

bool DaemonPidFileExists() { return fs::exists(ORVO::Paths::kRelaydPidFile); }

void StopDaemon() {
    char program[] = "/usr/orvo/sbin/orvorelayd", option[] = "--farlink", off[] = "off";
    char* args[] = {program, option, off, nullptr};
    pid_t pid = 0;
    FUZZ_CHECK(posix_spawn(&pid, program, nullptr, nullptr, args, environ) == 0);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) FUZZ_CHECK(errno == EINTR);
}

bool HasTemporaryFile() {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(ORVO::Paths::kRelaydConfDir, ignored))
        if (entry.path().filename().string().find(".tmp") != std::string::npos) return true;
    return false;
}

// Effective ids the service user's while it lives, as in the host's workers.
class ServiceUser {
public:
    ServiceUser() {
        FUZZ_CHECK(setresgid(-1, serviceGid, -1) == 0 && setresuid(-1, serviceUid, -1) == 0);
    }
    ~ServiceUser() { FUZZ_CHECK(setresuid(-1, 0, -1) == 0 && setresgid(-1, 0, -1) == 0); }
    ServiceUser(const ServiceUser&) = delete;
    ServiceUser& operator=(const ServiceUser&) = delete;
};

}  // namespace

void EnterBox() {
    const char* user = std::getenv("FARLINK_BOX_SERVICE_USER");
    const passwd* entry = user != nullptr ? getpwnam(user) : nullptr;
    if (RunDir().empty() || entry == nullptr) {
        std::fprintf(stderr,
                     "this harness runs only inside the emulated box: "
                     "box/farlink-box --build DIR -- PROGRAM [INPUT...]\n");
        std::exit(1);
    }
    serviceUid = entry->pw_uid;
    serviceGid = entry->pw_gid;
    InitialBoxState();
}

const ORVO::APITableEntry& Row(const char* api, int version, const char* method) {
    for (const ORVO::APITableEntry* row = grgTable; row->api != nullptr; ++row) {
        if (std::strcmp(row->api, api) == 0 &&
            row->version == static_cast<std::uint64_t>(version) &&
            std::strcmp(row->method, method) == 0)
            return *row;
    }
    std::fprintf(stderr, "no row %s/%d/%s in the module's table\n", api, version, method);
    std::exit(1);
}

HostCall CallAsHost(const ORVO::APITableEntry& row, const Json::Value& params) {
    ORVO::APIRequest request(row.api, static_cast<int>(row.version), row.method, params);
    HostCall call;
    {
        ServiceUser user;
        // The host's worker would answer with its own error, but a handler
        // that throws has skipped its own answer and its file repair.
        try {
            row.handler(&request, &call.response);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "handler threw: %s/%d/%s: %s\n", row.api,
                         static_cast<int>(row.version), row.method, error.what());
            FUZZ_CHECK(!"a handler let an exception out");
        }
        FUZZ_CHECK(geteuid() == serviceUid && getegid() == serviceGid);
    }
    FUZZ_CHECK(call.response.AnswerCount() == 1);
    FUZZ_CHECK(!HasTemporaryFile());
    return call;
}

BoxState ReadBoxState() { return ReadState(ORVO::Paths::kRelaydConfDir, ""); }

const BoxState& InitialBoxState() {
    static const BoxState initial =
        ReadState(RunDir() + "/initial/orvorelayd", RunDir() + "/initial");
    return initial;
}

void RestoreBox() {
    if (DaemonPidFileExists()) StopDaemon();
    const BoxState& initial = InitialBoxState();
    const BoxState now = ReadBoxState();
    for (const auto& [path, content] : now) {
        const auto was = initial.find(path);
        if (was == initial.end()) {
            fs::remove(path);
        } else if (was->second != content) {
            WriteInPlace(path, was->second);
        }
    }
    for (const auto& [path, content] : initial)
        if (now.count(path) == 0) WriteInPlace(path, content);
}

}  // namespace farlink_fuzz
