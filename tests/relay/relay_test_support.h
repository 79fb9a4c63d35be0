// Helpers of the relay tests: scratch directories, file contents, running
// the daemon program and waiting for the state it publishes.
#pragma once

#include <json/reader.h>
#include <json/value.h>
#include <orvo/paths.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace relay_test {

// A scratch directory removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "relaytest.XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Names of the directory's entries, sorted.
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    std::string path_;
};

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The parsed text or file; a null value when missing or not JSON.
inline Json::Value ParseJson(const std::string& text) {
    std::istringstream in(text);
    Json::Value value;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) return {};
    return value;
}
inline Json::Value ReadJson(const std::string& path) { return ParseJson(ReadText(path)); }

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

// Polls `condition` until it holds or `limitSeconds` pass; true if it held.
inline bool Eventually(const std::function<bool()>& condition, int limitSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
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
