// Small helpers shared by the platform tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "private_root.h"

namespace platform_test {

inline void WriteFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

inline std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Polls `done` until it holds or `limit` has passed; for effects of
// background processes that have no other completion signal.
inline bool WaitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/platform-test-XXXXXX";
        path_ = ::mkdtemp(name) ? name : "";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// Tests of code with fixed paths: the process gets its private /usr/orvo
// and /etc once, and each test starts with an empty /usr/orvo skeleton.
class PrivateRootTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string error;
        ASSERT_TRUE(farlink_test::EnterPrivateRoot(&error)) << error;
    }
    void SetUp() override {
        for (const char* dir : {"/usr/orvo/etc", "/usr/orvo/var/run"}) {
            std::filesystem::remove_all(dir);
            std::filesystem::create_directories(dir);
        }
    }
};

}  // namespace platform_test
