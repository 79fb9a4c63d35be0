// The host's processes as /proc shows them: a supervisor (the pid the host
// was started as), its front, and its workers.
#pragma once

#include <sys/types.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace farlink_test {

// The values of a /proc/<pid>/status line ("Uid:", "Gid:", "Groups:",
// "CapEff:", ...) joined by single blanks; "" when the process is gone.
inline std::string ProcStatus(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key, 0) != 0) continue;
        std::istringstream fields(line.substr(key.size()));
        std::string joined, field;
        while (fields >> field) joined += (joined.empty() ? "" : " ") + field;
        return joined;
    }
    return "";
}

// The children of `parent` whose command name is `name` ("farlink-front",
// "farlink-worker").
inline std::vector<pid_t> ChildrenNamed(pid_t parent, const std::string& name) {
    std::ifstream list("/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) +
                       "/children");
    std::vector<pid_t> found;
    for (pid_t child; list >> child;) {
        std::ifstream comm("/proc/" + std::to_string(child) + "/comm");
        std::string command;
        if (std::getline(comm, command) && command == name) found.push_back(child);
    }
    return found;
}

}  // namespace farlink_test
