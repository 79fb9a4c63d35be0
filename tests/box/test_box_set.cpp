// ORVO.Core.Farlink "set", versions 1 and 2, through the box's host: the
// relay daemon really starts and stops, and every answer leaves the host
// with its service ids. Then the module's daemon-control helpers against the
// box's real daemon program and settings file, called with the host's
// credentials. Runs inside a box.
#include <orvo/paths.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "box_fixture.h"
#include "utils.h"

namespace farlink_test {
namespace {

constexpr int kAuthDebug = 4 * 8 + 7;

Json::Value Params(const Json::Value& enabled) {
    Json::Value params(Json::objectValue);
    params["enabled"] = enabled;
    return params;
}

class SetTest : public BoxTest, public ::testing::WithParamInterface<int> {
protected:
    int Version() const { return GetParam(); }
    std::string Source() const { return "farlink.v" + std::to_string(Version()); }
    Json::Value Set(const Json::Value& params) {
        return Call("ORVO.Core.Farlink", Version(), "set", params);
    }
};

TEST_P(SetTest, TrueStartsTheDaemonAndFalseStopsIt) {
    EXPECT_EQ(Set(Params(true)), Answer(0));
    EXPECT_TRUE(DaemonRunning());
    const auto firstPid = DaemonPid();
    EXPECT_EQ(Set(Params(true)), Answer(0)) << "a running daemon is left running";
    EXPECT_EQ(DaemonPid(), firstPid);

    EXPECT_EQ(Set(Params(false)), Answer(0));
    EXPECT_FALSE(DaemonRunning());
    EXPECT_EQ(Set(Params(false)), Answer(0)) << "stopping a stopped daemon is no failure";

    // The daemon's command line ran as root: the section traced both switches
    // on entry and the user's return to root on leaving, four times over.
    const auto traced = [this](const std::string& message) {
        int count = 0;
        for (const auto& line : SyslogSinceSetUp()) {
            if (line.source != "utils") continue;
            EXPECT_EQ(line.priority, kAuthDebug) << line.raw;
            count += line.message == message;
        }
        return count;
    };
    WaitUntil([&] { return traced("WARNING: setresuid(-1, 0, -1)") >= 8; });
    EXPECT_EQ(traced("WARNING: setresgid(-1, 0, -1)"), 4);
    EXPECT_EQ(traced("WARNING: setresuid(-1, 0, -1)"), 8);
}

TEST_P(SetTest, MissingOrUnconvertibleEnabledIsInvalidAndChangesNothing) {
    ASSERT_EQ(Set(Params(true)), Answer(0));
    const auto pid = DaemonPid();
    // Which values convert is the unit tests' (ParameterRules).
    for (const char* params : {"{}", R"({"enabled": "no"})"}) {
        syslogMark_ = SyslogMark();
        EXPECT_EQ(Set(ParseJson(params)), Answer(2901)) << params;
        EXPECT_TRUE(LoggedError(Source(), "Invalid parameter"));
        EXPECT_TRUE(DaemonRunning());
        EXPECT_EQ(DaemonPid(), pid);
    }
}

TEST_P(SetTest, ADaemonProgramThatCannotRunFailsBothWays) {
    ScopedUnrunnableProgram broken(ORVO::Paths::kRelaydProgram);
    EXPECT_EQ(Set(Params(true)), Answer(2900));
    EXPECT_TRUE(LoggedError("utils", "fail to start farlink service"));
    EXPECT_TRUE(LoggedError(Source(), "Fail to notify orvorelayd"));
    EXPECT_FALSE(DaemonRunning());

    syslogMark_ = SyslogMark();
    EXPECT_EQ(Set(Params(false)), Answer(2900));
    EXPECT_TRUE(LoggedError("utils", "fail to stop farlink service"));
    EXPECT_TRUE(LoggedError(Source(), "Fail to notify orvorelayd"));
}

// Only a program that could not be run is a failure: its exit status is not.
TEST_P(SetTest, AnExitStatusOfTheDaemonProgramIsNoFailure) {
    WriteDaemonEmulation(ParseJson(R"({"start_exit": 1, "stop_exit": 3})"));
    EXPECT_EQ(Set(Params(true)), Answer(0));
    EXPECT_TRUE(DaemonRunning());
    EXPECT_EQ(Set(Params(false)), Answer(0));
    EXPECT_FALSE(DaemonRunning());
    EXPECT_FALSE(WaitForLogged(Source(), "Fail to notify orvorelayd", Milliseconds(200)));
}

INSTANTIATE_TEST_SUITE_P(Versions, SetTest, ::testing::Values(1, 2),
                         [](const auto& info) { return "v" + std::to_string(info.param); });

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
