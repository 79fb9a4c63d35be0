// Library objects whose files live at the box's fixed paths, and the emulated
// relay daemon program run as the module runs it, in the private root: the
// faults that no request through the host brings about.
#include <gtest/gtest.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <unistd.h>

#include "daemon_process.h"
#include "relay_test_support.h"

using namespace ORVO::Relay;
namespace Paths = ORVO::Paths;
using relay_test::ReadFile;
using relay_test::ReadJson;
using relay_test::WriteFile;

namespace {

class FixedFiles : public ::testing::Test {
protected:
    void SetUp() override { relay_test::ResetRelayFolders(); }
};

TEST_F(FixedFiles, AuthConfNeedsBothCredentialsAndKeepsTheKeyOutOfLogs) {
    AuthConf auth;
    Json::Value out, forLog;
    EXPECT_FALSE(auth.ReadConf()) << "no file";
    for (const char* text :
         {R"({"serial": "SN1", "api_key": ""})", R"({"serial": 5, "api_key": "K"})", "{oops"}) {
        WriteFile(Paths::kAuthConf, text);
        EXPECT_FALSE(auth.ReadConf()) << text;
        EXPECT_FALSE(auth.Write(out, true)) << text;
    }
    WriteFile(Paths::kAuthConf, R"({"serial": "SN1", "api_key": "K1"})");
    ASSERT_TRUE(auth.ReadConf() && auth.Write(out, true) && auth.Write(forLog, false));
    EXPECT_EQ(out["api_key"], "K1");
    EXPECT_EQ(forLog["serial"], "SN1");
    EXPECT_FALSE(forLog.isMember("api_key"));
}

TEST_F(FixedFiles, AliasStatusKeepsOneRecordPerAliasAndReadsBadOnesAsAbsent) {
    AliasStatus records;
    std::string status = "unknown", error;
    ASSERT_TRUE(records.SetStatus("box", "success", "", true));
    ASSERT_TRUE(records.SetStatus("other", "failed", "taken", true));
    EXPECT_TRUE(records.SetStatus("box", "changed", "", false)) << "no save: the file stays";
    EXPECT_EQ(ReadJson(Paths::kAliasStatus), relay_test::ParseJson(R"({
        "box": {"status": "success", "error": ""}, "other": {"status": "failed", "error": "taken"}})"));

    for (const char* text : {R"({"box": {"error": "x"}, "bad": 3})", "[not json"}) {
        WriteFile(Paths::kAliasStatus, text);
        EXPECT_FALSE(records.GetStatus("box", status, error) ||
                     records.GetStatus("bad", status, error));
    }
    EXPECT_EQ(status, "unknown");
    ASSERT_TRUE(records.SetStatus("box", "success", "", true)) << "a save starts over";
    EXPECT_TRUE(records.GetStatus("box", status, error));
}

TEST_F(FixedFiles, SniRefusesImplausibleDomains) {
    for (const std::string& domain : std::vector<std::string>{
             "", ".", "a..b", "-a.test", "a-.test", "under_score.test", "sp ace.test",
             std::string(64, 'a') + ".test", std::string(250, 'a') + ".test"}) {
        EXPECT_FALSE(Utils::EnableRelaySNI(domain)) << domain;
    }
    EXPECT_NE(access(Paths::kSniConf, F_OK), 0);
    ASSERT_TRUE(Utils::EnableRelaySNI("relay.example.test."));
    EXPECT_FALSE(Utils::EnableRelaySNI("bad..name"));
    EXPECT_EQ(ReadJson(Paths::kSniConf)["domain"], "relay.example.test.");
}

// A pid file naming a process that is not the daemon (this test) is stale.
TEST_F(FixedFiles, StalePidFileMeansNotRunning) {
    WriteFile(Paths::kRelaydPidFile, std::to_string(getpid()) + "\n");
    WriteFile(Paths::kRelaydStatus, R"({"status": "connected"})");
    std::string serverId, status, error;
    EXPECT_TRUE(Daemon::GetStatus(serverId, status, error));
    EXPECT_EQ(status, "not_running");
    EXPECT_EQ(Daemon::UpdateAlias(), -1) << "no signal for a stranger";
}

constexpr const char kEmulationConf[] = "/usr/orvo/var/lib/orvorelayd/emulation.conf";

relay_test::ProgramResult Relayd(std::vector<std::string> args) {
    args.insert(args.begin(), RELAYD_PROGRAM);
    return relay_test::RunProgram(args);
}

class DaemonProgram : public ::testing::Test {
protected:
    void SetUp() override { relay_test::ResetRelayFolders(); }
    void TearDown() override {
        EXPECT_EQ(Relayd({"--farlink", "off"}).exitStatus, 0);
        EXPECT_TRUE(relay_test::ChildrenEndedCleanly());
    }
};

TEST_F(DaemonProgram, UsageErrorsAndADetachedDaemonThatLeavesNoFiles) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"--farlink"}, {"--farlink", "maybe"}, {"--bogus"}, {"--farlink", "on", "x"}}) {
        const auto result = Relayd(args);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.output, "");
    }
    WriteFile(kEmulationConf, "{ malformed");  // stands for no controls
    ASSERT_EQ(Relayd({"--farlink", "on"}).exitStatus, 0);
    const pid_t pid = std::atoi(ReadFile(Paths::kRelaydPidFile).c_str());
    EXPECT_EQ(getsid(pid), pid) << "the daemon leads its own session";
    EXPECT_EQ(ReadJson(Paths::kRelaydStatus)["pid"], pid);
    EXPECT_EQ(Relayd({"--farlink", "status"}).output, "on");

    EXPECT_EQ(Relayd({"--farlink", "off"}).exitStatus, 0);
    EXPECT_FALSE(ORVO::Relay::internal::IsDaemonProcess(pid)) << "off returns once it has ended";
    EXPECT_EQ(Relayd({"--farlink", "status"}).output, "off");
    EXPECT_NE(access(Paths::kRelaydPidFile, F_OK), 0);
    EXPECT_NE(access(Paths::kRelaydStatus, F_OK), 0);
}

// "on" runs the daemon program that lies next to the command line; without
// it, "on" fails at once and leaves no state, and the daemon program itself
// refuses arguments it does not know.
TEST_F(DaemonProgram, OnWithoutItsDaemonProgramFailsAndTheDaemonRefusesUsageErrors) {
    const relay_test::TempDir alone;
    std::filesystem::copy_file(RELAYD_PROGRAM, alone / "orvorelayd");
    EXPECT_EQ(relay_test::RunProgram({alone / "orvorelayd", "--farlink", "on"}).exitStatus, 1);
    EXPECT_EQ(Relayd({"--farlink", "status"}).output, "off");
    EXPECT_NE(access(Paths::kRelaydPidFile, F_OK), 0);

    const std::string daemon =
        std::filesystem::path(RELAYD_PROGRAM).parent_path() / "orvorelayd-daemon";
    for (const auto& args : std::vector<std::vector<std::string>>{
             {daemon, "--bogus"}, {daemon, "--ready-fd", "1"}, {daemon, "--ready-fd", "x"}}) {
        EXPECT_EQ(relay_test::RunProgram(args).exitStatus, 2) << args.back();
    }
    EXPECT_NE(access(Paths::kRelaydPidFile, F_OK), 0);
}

// Starts that race: the daemon that loses the instance lock ends at once,
// and its starter counts the winner.
TEST_F(DaemonProgram, RacingStartsBothSucceedWithOneDaemon) {
    const std::string on = std::string(RELAYD_PROGRAM) + " --farlink on";
    FILE* first = popen(on.c_str(), "r");
    FILE* second = popen(on.c_str(), "r");
    ASSERT_TRUE(first != nullptr && second != nullptr);
    EXPECT_EQ(pclose(first), 0);
    EXPECT_EQ(pclose(second), 0);
    EXPECT_EQ(Relayd({"--farlink", "status"}).output, "on");
    const pid_t pid = std::atoi(ReadFile(Paths::kRelaydPidFile).c_str());
    EXPECT_TRUE(ORVO::Relay::internal::IsDaemonProcess(pid));
}

}  // namespace
