// The module's daemon-control helpers against the box's real daemon program,
// service manager, cloud service and settings file, called with the
// credentials the host gives the module. Runs inside a box.
#include <orvo/paths.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "box_fixture.h"
#include "utils.h"

namespace farlink_test {
namespace {

class UtilsTest : public BoxTest {
protected:
    bool IsEnabledWith(const std::string& statusOutput) {
        Json::Value controls;
        controls["status_output"] = statusOutput;
        WriteDaemonEmulation(controls);
        return AsHost([] { return OrvorelaydServiceIsEnabled(); });
    }

    bool FailoverWith(const std::string& hostInfo) {
        WriteFile(ORVO::Paths::kHostInfo, hostInfo);
        return AsHost([] { return IsFailoverEnable(); });
    }

    // Whether `message` reached the log from utils at error priority; a
    // line that should be absent is given a short while to turn up.
    bool Logged(const std::string& message, Milliseconds limit = Milliseconds(3000)) {
        return LoggedError("utils", message, limit);
    }
    bool NotLogged(const std::string& message) { return !Logged(message, Milliseconds(200)); }
};

TEST_F(UtilsTest, OnlyTheBareWordOnFromARunnableProgramIsEnabled) {
    EXPECT_TRUE(IsEnabledWith("on"));
    for (const std::string& other :
         std::vector<std::string>{"on\n", "on ", "off", std::string(40, 'o')})
        EXPECT_FALSE(IsEnabledWith(other)) << other;
    EXPECT_TRUE(NotLogged("Failed to read relay status ()"));
    EXPECT_FALSE(IsEnabledWith(""));
    EXPECT_TRUE(Logged("Failed to read relay status ()"));

    // A program that cannot run: the daemon counts as not enabled.
    ScopedUnrunnableProgram broken(ORVO::Paths::kRelaydProgram);
    EXPECT_FALSE(AsHost([] { return OrvorelaydServiceIsEnabled(); }));
    EXPECT_TRUE(Logged("OLIBCPopen failed(Permission denied)"));
}

TEST_F(UtilsTest, FailoverKeyIsTrustedWithoutAskingTheDaemon) {
    // The daemon would answer the opposite: it must not be asked.
    WriteDaemonEmulation(ParseJson(R"({"check_failover_value": "true"})"));
    EXPECT_TRUE(FailoverWith("farlink_enable_failover=\"true\"\n"));
    EXPECT_FALSE(FailoverWith("farlink_enable_failover=\"false\"\n"));
    EXPECT_EQ(ReadFile(ORVO::Paths::kHostInfo), "farlink_enable_failover=\"false\"\n");
    for (const char* odd : {"TRUE", "yes", "1", "true ", ""}) {
        EXPECT_FALSE(FailoverWith(std::string("farlink_enable_failover=\"") + odd + "\"\n")) << odd;
    }
}

TEST_F(UtilsTest, AbsentFailoverKeyIsAskedOfTheDaemonOnce) {
    WriteDaemonEmulation(ParseJson(R"({"check_failover_value": "true"})"));
    EXPECT_TRUE(FailoverWith("other=\"1\"\n"));
    EXPECT_EQ(ReadFile(ORVO::Paths::kHostInfo), "other=\"1\"\nfarlink_enable_failover=\"true\"\n");

    WriteDaemonEmulation(ParseJson(R"({"check_failover_value": "false"})"));
    EXPECT_FALSE(FailoverWith(""));
    EXPECT_TRUE(NotLogged("Fail to exec orvorelayd --check-failover"));
}

TEST_F(UtilsTest, FailoverCheckThatExitsNonZeroOrUnreadableSettingsMeanDisabled) {
    WriteDaemonEmulation(ParseJson(R"({"check_failover_exit": 1})"));
    EXPECT_FALSE(FailoverWith(""));
    EXPECT_TRUE(Logged("Fail to exec orvorelayd --check-failover"));

    WriteFile(ORVO::Paths::kHostInfo, "farlink_enable_failover=\"true\"\n");
    ASSERT_EQ(chmod(ORVO::Paths::kHostInfo, 0600), 0);
    EXPECT_FALSE(AsHost([] { return IsFailoverEnable(); }));
    ASSERT_EQ(chmod(ORVO::Paths::kHostInfo, 0644), 0);
    EXPECT_TRUE(Logged("Fail to get failover enable setting"));
}

}  // namespace
}  // namespace farlink_test
