// Self-test of the emulated box: the fixture's reset. Runs inside a box.
#include <filesystem>
#include <string>
#include <vector>

#include "box_fixture.h"

namespace farlink_test {
namespace {

using BoxFixtureTest = BoxTest;

TEST_F(BoxFixtureTest, SetUpRestoresFilesInPlace) {
    const char* files[] = {"/usr/orvo/etc/orvorelayd/auth.conf", "/etc/orvoinfo.conf",
                           "/usr/orvo/etc/orvokivo/account.conf"};
    std::vector<std::string> before;
    for (const char* file : files) before.push_back(ReadFile(file));
    ASSERT_FALSE(before[0].empty());
    for (const char* file : files) WriteFile(file, "{broken");
    WriteFile("/usr/orvo/etc/orvorelayd/misc.conf.bad", "{}");
    WriteDaemonEmulation(Json::Value(Json::objectValue));
    SetUp();

    for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(ReadFile(files[i]), before[i]) << files[i];
    EXPECT_FALSE(std::filesystem::exists("/usr/orvo/etc/orvorelayd/misc.conf.bad"));
    EXPECT_FALSE(std::filesystem::exists("/usr/orvo/var/lib/orvorelayd/emulation.conf"));
    EXPECT_TRUE(std::filesystem::equivalent("/etc/orvoinfo.conf", BoxRunDir() + "/orvoinfo.conf"))
        << "the host settings file must stay bound to the run directory";
    EXPECT_FALSE(DaemonRunning());
}

}  // namespace
}  // namespace farlink_test
