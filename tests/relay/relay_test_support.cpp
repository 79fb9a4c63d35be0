#include "relay_test_support.h"

#include <json/reader.h>
#include <orvo/paths.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace relay_test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "relaytest.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::Entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

namespace {

Json::Value ParseStream(std::istream& in) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &value, &errors)) return Json::Value();
    return value;
}

}  // namespace

Json::Value ReadJson(const std::string& path) {
    std::ifstream in(path);
    return ParseStream(in);
}

Json::Value ParseJson(const std::string& text) {
    std::istringstream in(text);
    return ParseStream(in);
}

ProgramResult RunProgram(const std::vector<std::string>& args) {
    // The arguments are plain words of the tests, so the shell may join them.
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

void ResetRelayFolders() {
    namespace fs = std::filesystem;
    for (const char* dir :
         {ORVO::Paths::kRelaydConfDir, ORVO::Paths::kRunDir, "/usr/orvo/var/lib/orvorelayd"}) {
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
}

bool Eventually(const std::function<bool()>& condition, int limitSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool ChildrenEndedCleanly() {
    bool clean = true;
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
        clean = clean && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return clean && waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

}  // namespace relay_test
