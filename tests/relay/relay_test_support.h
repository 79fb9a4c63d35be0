// Helpers of the relay tests: scratch directories, file contents, running
// the daemon program and waiting for the state it publishes.
#pragma once

#include <orvo/paths.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "test_json.h"

namespace relay_test {

using farlink_test::ParseJson;
using farlink_test::ReadFile;
using farlink_test::ReadJson;
using farlink_test::TempDir;
using farlink_test::WaitUntil;
using farlink_test::WriteFile;

struct ProgramResult {
    int exitStatus = -1;  // -1 when it did not exit normally
    std::string output;
};

// Runs a program (arguments without blanks or shell characters) and
// captures its standard output.
inline ProgramResult RunProgram(const std::vector<std::string>& args) {
    std::string command;
    for (const auto& arg : args) command += arg + " ";
    ProgramResult result;
    FILE* stream = popen(command.c_str(), "r");
    if (stream == nullptr) return result;
    char buffer[256];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, stream)) > 0;)
        result.output.append(buffer, n);
    const int status = pclose(stream);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// Empties the relay's configuration and runtime folders of the private root.
inline void ResetRelayFolders() {
    for (const char* dir :
         {ORVO::Paths::kRelaydConfDir, ORVO::Paths::kRunDir, "/usr/orvo/var/lib/orvorelayd"}) {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
}

// Reaps finished children (the daemons, orphaned to this subreaper); true
// when every one of them had exited with status 0 and none is left.
inline bool ChildrenEndedCleanly() {
    bool clean = true;
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0)
        clean = clean && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return clean && waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

}  // namespace relay_test
