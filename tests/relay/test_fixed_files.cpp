// Library objects whose files live at the box's fixed paths (private root).
#include <gtest/gtest.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Callers read the credentials and record the alias status with the web
// API server's ids (root as real and saved ids, an unprivileged user as the
// effective ones), although both files are root's; their ids stay as they were.
TEST_F(FixedFiles, AuthConfNeedsBothCredentialsAndNoRaisedIds) {
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
    ASSERT_EQ(chmod(Paths::kAuthConf, 0600), 0);
    ASSERT_EQ(setresgid(-1, 65534, -1), 0);
    ASSERT_EQ(setresuid(-1, 65534, -1), 0);
    const bool read = auth.ReadConf();
    const bool recorded = AliasStatus().SetStatus("box", "success", "", true);
    const uid_t euid = geteuid();
    const gid_t egid = getegid();
    ASSERT_EQ(setresuid(-1, 0, -1), 0);
    ASSERT_EQ(setresgid(-1, 0, -1), 0);
    EXPECT_TRUE(read && recorded);
    EXPECT_EQ(euid, 65534u);
    EXPECT_EQ(egid, 65534u);

    ASSERT_TRUE(auth.Write(out, true) && auth.Write(forLog, false));
    EXPECT_EQ(out["serial"], "SN1");
    EXPECT_EQ(out["api_key"], "K1");
    EXPECT_FALSE(forLog.isMember("api_key"));
    EXPECT_EQ(ReadJson(Paths::kAliasStatus)["box"]["status"], "success");
    struct stat written {};
    ASSERT_EQ(stat(Paths::kAliasStatus, &written), 0);
    EXPECT_EQ(written.st_uid, 0u);
    EXPECT_EQ(written.st_gid, 0u);
}

TEST_F(FixedFiles, AliasStatusKeepsOneRecordPerAlias) {
    AliasStatus records;
    std::string status = "unknown", error = "untouched";
    EXPECT_FALSE(records.GetStatus("box", status, error));
    EXPECT_EQ(status, "unknown");
    ASSERT_TRUE(records.SetStatus("box", "success", "", true));
    ASSERT_TRUE(records.SetStatus("other", "failed", "taken", true));
    EXPECT_TRUE(records.SetStatus("box", "changed", "", false)) << "no save: the file stays";
    EXPECT_EQ(ReadJson(Paths::kAliasStatus), relay_test::ParseJson(R"({
        "box": {"status": "success", "error": ""}, "other": {"status": "failed", "error": "taken"}})"));
    ASSERT_TRUE(records.GetStatus("other", status, error));
    EXPECT_EQ(status + "/" + error, "failed/taken");

    // Unusable records or files read as absent; a save starts them over.
    for (const char* text : {R"({"box": {"error": "x"}, "bad": 3})", "[not json"}) {
        WriteFile(Paths::kAliasStatus, text);
        EXPECT_FALSE(records.GetStatus("box", status, error) ||
                     records.GetStatus("bad", status, error));
    }
    ASSERT_TRUE(records.SetStatus("box", "success", "", true));
    EXPECT_TRUE(records.GetStatus("box", status, error));
}

TEST_F(FixedFiles, ServicePermissionWritesAndReadsTheDefaultList) {
    ASSERT_TRUE(ServicePermission(false).GenPermissionConf());
    const Json::Value written = ReadJson(Paths::kServicesConf);
    ASSERT_EQ(written.size(), 6u);
    for (const auto& entry : written)
        EXPECT_TRUE(entry["id"].isString() && entry["enabled"].isBool()) << entry.toStyledString();
    EXPECT_EQ(ServicePermission(true).GetServices(), written);
    WriteFile(Paths::kServicesConf, R"([{"id": "web", "enabled": false}])");
    EXPECT_EQ(ServicePermission(true).GetServices().size(), 1u);
    EXPECT_EQ(ServicePermission(false).GetServices(), written) << "without load: the defaults";
    // A list that is not one stands for the defaults, as a missing file does.
    WriteFile(Paths::kServicesConf, R"({"not": "an array"})");
    EXPECT_EQ(ServicePermission(true).GetServices(), written);
}

TEST_F(FixedFiles, SniRefusesImplausibleDomains) {
    for (const std::string& domain : std::vector<std::string>{
             "", ".", "a..b", "-a.test", "a-.test", "under_score.test", "sp ace.test",
             std::string(64, 'a') + ".test", std::string(250, 'a') + ".test"}) {
        EXPECT_FALSE(Utils::EnableRelaySNI(domain)) << domain;
    }
    EXPECT_NE(access(Paths::kSniConf, F_OK), 0);

    ASSERT_TRUE(Utils::EnableRelaySNI("relay.example.test."));
    EXPECT_EQ(ReadJson(Paths::kSniConf)["enabled"], true);
    EXPECT_EQ(ReadJson(Paths::kSniConf)["domain"], "relay.example.test.");
    EXPECT_FALSE(Utils::EnableRelaySNI("bad..name"));
    EXPECT_EQ(ReadJson(Paths::kSniConf)["domain"], "relay.example.test.");
    ASSERT_TRUE(Utils::DisableRelaySNI());
    EXPECT_EQ(ReadJson(Paths::kSniConf)["enabled"], false);
}

TEST_F(FixedFiles, StatusWithoutDaemonReportsNotRunning) {
    std::string serverId = "stale", status, error = "stale";
    EXPECT_TRUE(Daemon::GetStatus(serverId, status, error));
    EXPECT_EQ(serverId + "/" + status + "/" + error, "/not_running/");

    WriteFile(Paths::kRelaydConf, R"({"server_id": "SID-9"})");
    EXPECT_TRUE(Daemon::GetStatus(serverId, status, error));
    EXPECT_EQ(serverId, "SID-9");
    const relay_test::TempDir dir;
    WriteFile(dir / "alt.conf", R"({"server_id": "SID-ALT"})");
    EXPECT_TRUE(Daemon::GetStatus(serverId, status, error, (dir / "alt.conf").c_str()));
    EXPECT_EQ(serverId, "SID-ALT");

    // A pid file naming a process that is not the daemon (this test) is stale.
    WriteFile(Paths::kRelaydPidFile, std::to_string(getpid()) + "\n");
    WriteFile(Paths::kRelaydStatus, R"({"status": "connected"})");
    EXPECT_TRUE(Daemon::GetStatus(serverId, status, error));
    EXPECT_EQ(status, "not_running");
    EXPECT_EQ(Daemon::UpdateAlias(), -1);
}

}  // namespace
