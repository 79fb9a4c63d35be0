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

constexpr int kLogError = 1 * 8 + 3;  // user.err

class UtilsTest : public BoxTest {
protected:
    // Runs `body` with the host's credentials and checks that it leaves them
    // as it found them.
    template <typename Body>
    auto AsHost(Body body) {
        ScopedServiceUser user;
        auto result = body();
        EXPECT_EQ(geteuid(), user.Uid()) << "a section left the user raised";
        EXPECT_EQ(getegid(), user.Gid()) << "a section left the group raised";
        return result;
    }

    // Writes the daemon's emulation controls as one object.
    static void Emulate(const std::string& control, const Json::Value& value) {
        Json::Value controls;
        controls[control] = value;
        WriteDaemonEmulation(controls);
    }

    bool IsEnabledWith(const std::string& statusOutput) {
        Emulate("status_output", statusOutput);
        return AsHost([] { return OrvorelaydServiceIsEnabled(); });
    }

    bool FailoverWith(const std::string& hostInfo) {
        WriteFile(ORVO::Paths::kHostInfo, hostInfo);
        return AsHost([] { return IsFailoverEnable(); });
    }

    // Whether `message` reached the log from utils at error priority; a
    // line that should be absent is given a short while to turn up.
    bool Logged(const std::string& message, Milliseconds limit = Milliseconds(3000)) {
        const auto line = WaitForLogged("utils", message, limit);
        return line && line->priority == kLogError;
    }
    bool NotLogged(const std::string& message) { return !Logged(message, Milliseconds(200)); }
};

TEST_F(UtilsTest, StartAndStopDriveTheDaemonAndIsEnabledReadsItsWord) {
    EXPECT_FALSE(AsHost([] { return OrvorelaydServiceIsEnabled(); }));
    EXPECT_EQ(AsHost([] { return OrvorelaydServiceStart(); }), 0);
    EXPECT_TRUE(DaemonRunning());
    EXPECT_TRUE(AsHost([] { return OrvorelaydServiceIsEnabled(); }));
    EXPECT_EQ(AsHost([] { return OrvorelaydServiceStop(); }), 0);
    EXPECT_FALSE(DaemonRunning());

    // A program that cannot run: start and stop fail (as the set tests show),
    // and the daemon counts as not enabled.
    ScopedUnrunnableProgram broken(ORVO::Paths::kRelaydProgram);
    EXPECT_FALSE(AsHost([] { return OrvorelaydServiceIsEnabled(); }));
    EXPECT_TRUE(Logged("OLIBCPopen failed(Permission denied)"));
}

TEST_F(UtilsTest, OnlyTheBareWordOnIsEnabled) {
    EXPECT_TRUE(IsEnabledWith("on"));
    for (const std::string& other :
         std::vector<std::string>{"on\n", "on ", "off", std::string(40, 'o')})
        EXPECT_FALSE(IsEnabledWith(other)) << other;
    EXPECT_TRUE(NotLogged("Failed to read relay status ()"));
    EXPECT_FALSE(IsEnabledWith(""));
    EXPECT_TRUE(Logged("Failed to read relay status ()"));
}

TEST_F(UtilsTest, NotifyReloadsOnlyAnEnabledDaemon) {
    EXPECT_EQ(AsHost([] { return NotifyOrvorelayd(); }), 0);
    EXPECT_TRUE(ReadLines(ORVO::Paths::kSystemdReloadLog).empty())
        << "a stopped daemon is left alone";

    ASSERT_EQ(AsHost([] { return OrvorelaydServiceStart(); }), 0);
    EXPECT_EQ(AsHost([] { return NotifyOrvorelayd(); }), 0);
    EXPECT_EQ(ReadLines(ORVO::Paths::kSystemdReloadLog), std::vector<std::string>{"orvorelayd ok"});
    EXPECT_TRUE(NotLogged("call OrvorelaydServiceReload() error"));
}

TEST_F(UtilsTest, NotifyFailsWhenTheEnabledDaemonCannotBeReloaded) {
    // The daemon claims to be on but no process runs: the reload has no target.
    EXPECT_EQ(IsEnabledWith("on"), true);
    EXPECT_EQ(AsHost([] { return NotifyOrvorelayd(); }), -1);
    EXPECT_TRUE(Logged("call OrvorelaydServiceReload() error"));
    ASSERT_EQ(ReadLines(ORVO::Paths::kSystemdReloadLog).size(), 1u);
    EXPECT_EQ(ReadLines(ORVO::Paths::kSystemdReloadLog)[0].rfind("orvorelayd failed", 0), 0u);
}

TEST_F(UtilsTest, DaemonStatusComesFromTheRunningDaemon) {
    std::string serverId, status = "unknown", error;
    EXPECT_TRUE(AsHost([&] { return GetDaemonStatus(serverId, status, error); }));
    EXPECT_EQ(status, "not_running");

    Json::Value controls;
    controls["force_status"] = "connecting";
    controls["force_error"] = "err_resolv";
    WriteDaemonEmulation(controls);
    ASSERT_EQ(AsHost([] { return OrvorelaydServiceStart(); }), 0);
    status = "unknown";
    EXPECT_TRUE(AsHost([&] { return GetDaemonStatus(serverId, status, error); }));
    EXPECT_EQ(status, "connecting");
    EXPECT_EQ(error, "err_resolv");

    EXPECT_EQ(AsHost([] { return UpdateAlias(); }), 0);
}

TEST_F(UtilsTest, ExpiredApiKeyIsHandedToTheCloudService) {
    AsHost([] {
        HandleApiKeyExpired();
        return 0;
    });
    EXPECT_TRUE(Logged("api key expired"));
    EXPECT_EQ(ReadLines(ORVO::Paths::kCloudServiceLog), std::vector<std::string>{"action 2"});
}

TEST_F(UtilsTest, SniSwitchesWriteTheRelaySetting) {
    std::string domain = "relay.example.test";
    EXPECT_TRUE(AsHost([&] { return EnableFarlinkSNI(domain); }));
    EXPECT_EQ(ReadJson(ORVO::Paths::kSniConf)["domain"].asString(), domain);
    EXPECT_TRUE(ReadJson(ORVO::Paths::kSniConf)["enabled"].asBool());
    std::string bad = "not a domain";
    EXPECT_FALSE(AsHost([&] { return EnableFarlinkSNI(bad); }));
    EXPECT_TRUE(AsHost([] { return DisableFarlinkSNI(); }));
    EXPECT_FALSE(ReadJson(ORVO::Paths::kSniConf)["enabled"].asBool());
}

TEST_F(UtilsTest, FailoverKeyIsTrustedWithoutAskingTheDaemon) {
    // The daemon would answer the opposite: it must not be asked.
    Emulate("check_failover_value", "true");
    EXPECT_TRUE(FailoverWith("farlink_enable_failover=\"true\"\n"));
    EXPECT_FALSE(FailoverWith("farlink_enable_failover=\"false\"\n"));
    EXPECT_EQ(ReadFile(ORVO::Paths::kHostInfo), "farlink_enable_failover=\"false\"\n");
    for (const char* odd : {"TRUE", "yes", "1", "true ", ""}) {
        EXPECT_FALSE(FailoverWith(std::string("farlink_enable_failover=\"") + odd + "\"\n")) << odd;
    }
}

TEST_F(UtilsTest, AbsentFailoverKeyIsAskedOfTheDaemonOnce) {
    Emulate("check_failover_value", "true");
    EXPECT_TRUE(FailoverWith("other=\"1\"\n"));
    EXPECT_EQ(ReadFile(ORVO::Paths::kHostInfo), "other=\"1\"\nfarlink_enable_failover=\"true\"\n");

    Emulate("check_failover_value", "false");
    EXPECT_FALSE(FailoverWith(""));
    EXPECT_TRUE(NotLogged("Fail to exec orvorelayd --check-failover"));
}

TEST_F(UtilsTest, FailoverCheckThatExitsNonZeroOrUnreadableSettingsMeanDisabled) {
    Emulate("check_failover_exit", 1);
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
