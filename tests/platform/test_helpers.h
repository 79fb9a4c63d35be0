// Small helpers shared by the platform tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "private_root.h"
#include "test_files.h"

namespace platform_test {

using farlink_test::ReadFile;
using farlink_test::ReadLines;
using farlink_test::TempDir;
using farlink_test::WaitUntil;
using farlink_test::WriteFile;

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
