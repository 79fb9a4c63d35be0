// The emulated relay daemon program, run as the module runs it, inside the
// private root.
#include <gtest/gtest.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "json_responder.h"
#include "relay_test_support.h"

using namespace ORVO::Relay;
namespace Paths = ORVO::Paths;
using relay_test::ReadFile;
using relay_test::ReadJson;
using relay_test::WaitUntil;
using relay_test::WriteFile;

namespace {

constexpr const char kEmulationConf[] = "/usr/orvo/var/lib/orvorelayd/emulation.conf";
constexpr std::chrono::seconds kSettle(15);

relay_test::ProgramResult Relayd(std::vector<std::string> args) {
    args.insert(args.begin(), RELAYD_PROGRAM);
    return relay_test::RunProgram(args);
}

pid_t DaemonPid() { return static_cast<pid_t>(std::atoi(ReadFile(Paths::kRelaydPidFile).c_str())); }

// The daemon's server ID as the library reports it.
std::string ReportedServerId() {
    std::string id, status, error;
    return Daemon::GetStatus(id, status, error) ? id : "-";
}

// Points the register site at the loopback responder (or any port).
void WriteRelaydConf(int port, const std::string& serverId, const std::string& host = "127.0.0.1") {
    Json::Value conf(Json::objectValue);
    conf["server_control"]["host"] = host;
    conf["server_control"]["scheme"] = "http";
    conf["server_control"]["port"] = port;
    conf["server_id"] = serverId;
    ASSERT_TRUE(RelaydConf::WriteJsonFile(Paths::kRelaydConf, conf));
}

class DaemonProgram : public ::testing::Test {
protected:
    void SetUp() override {
        relay_test::ResetRelayFolders();
        // Only the heartbeats at start and after a reload: counts stay exact.
        SetEmulation(R"({"heartbeat_interval": 600})");
    }
    void TearDown() override {
        EXPECT_EQ(Relayd({"--farlink", "off"}).exitStatus, 0);
        EXPECT_TRUE(relay_test::ChildrenEndedCleanly());
    }

    static void SetEmulation(const std::string& text) { WriteFile(kEmulationConf, text); }

    static void StartDaemon() {
        ASSERT_EQ(Relayd({"--farlink", "on"}).exitStatus, 0);
        ASSERT_NE(DaemonPid(), 0);
    }

    // Waits until the daemon reports `status` and `error`.
    static bool Reports(const std::string& status, const std::string& error) {
        return WaitUntil(
            [&] {
                std::string id, s, e;
                return Daemon::GetStatus(id, s, e) && s == status && e == error;
            },
            kSettle);
    }

    static bool StatusMemberReaches(const char* key, int value) {
        return WaitUntil([&] { return ReadJson(Paths::kRelaydStatus)[key] == value; }, kSettle);
    }
};

TEST_F(DaemonProgram, OnOffStatusAndUsage) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"--farlink"}, {"--farlink", "maybe"}, {"--bogus"}, {"--farlink", "on", "x"}}) {
        const auto result = Relayd(args);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.output, "");
    }
    SetEmulation("{ malformed");  // stands for no controls
    EXPECT_EQ(Relayd({"--farlink", "status"}).output, "off");
    StartDaemon();
    const pid_t pid = DaemonPid();
    EXPECT_EQ(getsid(pid), pid) << "the daemon leads its own session";
    EXPECT_EQ(ReadJson(Paths::kRelaydStatus)["pid"], pid);

    EXPECT_EQ(Relayd({"--farlink", "off"}).exitStatus, 0);
    EXPECT_EQ(Relayd({"--farlink", "status"}).output, "off");
    EXPECT_NE(access(Paths::kRelaydPidFile, F_OK), 0);
    EXPECT_NE(access(Paths::kRelaydStatus, F_OK), 0);
}

TEST_F(DaemonProgram, CheckFailoverRewritesTheKeyInPlace) {
    WriteFile(Paths::kHostInfo, "a=\"1\"\nfarlink_enable_failover=\"true\"\nb=\"2\"\n");
    struct stat before {
    }, after{};
    ASSERT_EQ(stat(Paths::kHostInfo, &before), 0);
    EXPECT_EQ(Relayd({"--check-failover"}).exitStatus, 0);
    EXPECT_EQ(ReadFile(Paths::kHostInfo), "a=\"1\"\nfarlink_enable_failover=\"false\"\nb=\"2\"\n");
    ASSERT_EQ(stat(Paths::kHostInfo, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "rewritten in place, not replaced";

    WriteFile(Paths::kHostInfo, "a=\"1\"\nlast_without_newline=\"x\"");
    SetEmulation(R"({"check_failover_value": "true"})");
    EXPECT_EQ(Relayd({"--check-failover"}).exitStatus, 0);
    const std::string written =
        "a=\"1\"\nlast_without_newline=\"x\"\nfarlink_enable_failover=\"true\"\n";
    EXPECT_EQ(ReadFile(Paths::kHostInfo), written);
    SetEmulation(R"({"check_failover_exit": 1, "check_failover_value": "false"})");
    EXPECT_EQ(Relayd({"--check-failover"}).exitStatus, 1);
    EXPECT_EQ(ReadFile(Paths::kHostInfo), written);
}

TEST_F(DaemonProgram, HeartbeatOutcomesBecomeStatusWords) {
    relay_test::JsonResponder site("{}");
    WriteRelaydConf(site.port(), "SID-1");
    StartDaemon();
    ASSERT_TRUE(Reports("connected", ""));
    EXPECT_EQ(ReportedServerId(), "SID-1");
    ASSERT_EQ(site.Bodies().size(), 1u);
    EXPECT_EQ(
        site.Bodies()[0],
        relay_test::ParseJson(R"({"version": 1, "command": "heartbeat", "serverID": "SID-1"})"));

    // Nothing listens on the loopback's port 1.
    const std::tuple<const char*, int, const char*, const char*> cases[] = {
        {R"({"errno": 30})", site.port(), "127.0.0.1", "err_violation"},
        {R"({"errno": 10})", site.port(), "127.0.0.1", "err_server"},
        {"{}", 1, "127.0.0.1", "err_network"},
        {"{}", 80, "no-such-host.invalid", "err_resolv"},
    };
    for (const auto& [answer, port, host, error] : cases) {
        site.SetAnswer(answer);
        WriteRelaydConf(port, "SID-1", host);
        ASSERT_EQ(kill(DaemonPid(), SIGHUP), 0);
        EXPECT_TRUE(Reports("connecting", error)) << error;
    }
}

TEST_F(DaemonProgram, SignalsAreCountedAndReloadRereadsTheConfiguration) {
    relay_test::JsonResponder site("{}");
    WriteRelaydConf(site.port(), "SID-1");
    StartDaemon();
    ASSERT_TRUE(Reports("connected", ""));

    EXPECT_EQ(Daemon::UpdateAlias(), 0);
    EXPECT_TRUE(StatusMemberReaches("alias_updates", 1));
    EXPECT_EQ(Daemon::UpdateAlias(), 0);
    EXPECT_TRUE(StatusMemberReaches("alias_updates", 2));

    WriteRelaydConf(site.port(), "SID-2");
    // Changing SNI asks the running daemon to reload.
    ASSERT_TRUE(Utils::EnableRelaySNI("relay.example.test"));
    EXPECT_TRUE(StatusMemberReaches("reloads", 1));
    EXPECT_TRUE(WaitUntil([] { return ReportedServerId() == "SID-2"; }, kSettle));
    EXPECT_TRUE(WaitUntil([&] { return site.Bodies().size() == 2; }, kSettle));
    EXPECT_EQ(site.Bodies().back()["serverID"], "SID-2");
}

TEST_F(DaemonProgram, NoServerIdOrForcedWordsSendNothing) {
    relay_test::JsonResponder site("{}");
    WriteRelaydConf(site.port(), "");
    StartDaemon();
    EXPECT_TRUE(Reports("unregistered", ""));

    WriteRelaydConf(site.port(), "SID-1");
    SetEmulation(R"({"force_status": "connected", "force_error": "err_network",
                     "heartbeat_interval": 600})");
    ASSERT_EQ(kill(DaemonPid(), SIGHUP), 0);
    EXPECT_TRUE(Reports("connected", "err_network"));
    EXPECT_TRUE(site.Bodies().empty());

    WriteFile(Paths::kRelaydStatus, "{ torn");
    std::string id, status, error;
    EXPECT_FALSE(Daemon::GetStatus(id, status, error)) << "a running daemon's state is unreadable";
}

}  // namespace
