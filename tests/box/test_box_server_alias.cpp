// ORVO.Core.Farlink "set_server_alias" v1 and "check_availability" v3
// through the box's host, against the box's control server, relay daemon and
// account state. Runs inside a box.
#include <orvo/paths.h>

#include <string>
#include <vector>

#include "box_fixture.h"

namespace farlink_test {
namespace {

const std::string kConf = ORVO::Paths::kRelaydConf;
const std::string kPrimary = FARLINK_PRIMARY_CONTROL_HOST;
const std::string kSite = "rs" + kPrimary.substr(kPrimary.find('.'));

class ServerAliasTest : public BoxTest {
protected:
    // A request that passes every check, with `changes` merged in ("-" drops
    // a member). The API code, 2908 for success.
    int SetAlias(const std::string& changes = "{}") {
        Json::Value params = ParseJson(
            R"({"kivo_account":"alice@example.test","server_alias":"box","kivo_password":"secret1"})");
        const Json::Value changed = ParseJson(changes);
        for (const auto& name : changed.getMemberNames()) params[name] = changed[name];
        for (const auto& name : params.getMemberNames())
            if (params[name] == "-") params.removeMember(name);
        syslogMark_ = SyslogMark();
        const Json::Value answer = Call("ORVO.Core.Farlink", 1, "set_server_alias", params);
        return answer["success"] == true ? 2908 : answer["error"]["code"].asInt();
    }
    // "command@host" of the requests from the `from`th on, heartbeats left out.
    std::vector<std::string> Commands(Json::ArrayIndex from = 0) {
        std::vector<std::string> commands;
        const Json::Value records = ControlRecords();
        for (Json::ArrayIndex i = from; i < records.size(); ++i) {
            if (records[i]["command"] == "heartbeat") continue;
            commands.push_back(records[i]["command"].asString() + "@" +
                               records[i]["host"].asString());
        }
        return commands;
    }
    Json::Value LastAliasBody() {
        Json::Value body;
        for (const auto& record : ControlRecords())
            if (record["command"] == "set_alias") body = record["body"];
        return body;
    }
};

TEST_F(ServerAliasTest, ParametersAreCheckedBeforeAnythingIsSent) {
    const std::string length = "kivo passowrd length is invaild: ";
    const std::pair<std::string, std::string> refused[] = {
        {R"({"kivo_account":"-"})", "Invalid parameter"},
        {R"({"force":"yes"})", "Invalid parameter"},
        {R"({"server_alias":"a_b"})", "alias format error: a_b"},
        {R"({"server_alias":"a\u0000b"})", "alias format error: a"},
        {R"({"kivo_account":"alice@example.c"})", "kivo account format error: alice@example.c"},
        {R"({"kivo_password":"12345"})", length + "5"},
        {R"({"kivo_password":")" + std::string(129, 'p') + "\"}", length + "129"},
        // Bytes, up to the first NUL: what the digest would see.
        {R"({"kivo_password":"abc\u0000defgh"})", length + "3"},
    };
    for (const auto& [changes, logged] : refused) {
        EXPECT_EQ(SetAlias(changes), 2901) << changes;
        EXPECT_TRUE(LoggedError("farlink.v1", logged)) << logged;
    }
    EXPECT_TRUE(Commands().empty());
    EXPECT_EQ(SetAlias(R"({"server_alias":"b","kivo_password":"\u00e9\u00e9\u00e9"})"), 2908);
    EXPECT_EQ(SetAlias(R"({"server_alias":"b-","kivo_password":")" + std::string(128, 'p') + "\"}"),
              2908);
}

// Each call finds the state the one before left; each fault serves one request.
TEST_F(ServerAliasTest, RegisterSiteAndServerIdAreFetchedOnlyWhenMissing) {
    const std::string site = "get_register_site@" + kPrimary, reg = "register@" + kPrimary,
                      alias = "set_alias@" + kSite, failed = "Register serverid faield";
    const struct {
        std::string fault;
        int code;
        std::vector<std::string> commands;
        std::string logged;
    } cases[] = {
        {R"({"mode":"error","errno":4})", 2905, {site}, "Get register site faield"},
        // These two fail with a relay result that reads as success.
        {R"({"mode":"no_host"})", 2900, {site}, "Get register site faield"},
        {R"({"command":"register","mode":"error","errno":5})", 2909, {site, reg}, failed},
        {R"({"mode":"error","errno":0})", 2900, {reg}, failed},
        {R"({"mode":"normal"})", 2908, {reg, alias}, ""},
        {"daemon on", 2908, {alias}, ""},
    };
    for (const auto& c : cases) {
        const bool daemonOn = c.fault == "daemon on";
        ASSERT_TRUE(!daemonOn || Relayd("on") == 0);
        Json::Value fault = ParseJson(daemonOn ? R"({"mode":"normal"})" : c.fault);
        fault["count"] = 1;
        SetControlFault(fault);
        const Json::ArrayIndex before = ControlRecords().size();
        EXPECT_EQ(SetAlias(), c.code) << c.fault;
        EXPECT_EQ(Commands(before), c.commands) << c.fault;
        EXPECT_TRUE(c.logged.empty() || LoggedError("farlink.v1", c.logged)) << c.logged;
    }
    EXPECT_EQ(CloudServiceActions(), std::vector<std::string>{"action 2"});
}

TEST_F(ServerAliasTest, RefusedAliasAnswersTheAliasCodeAndRecordsNothing) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"mode":"error","errno":6})", "2904 ret: 3 error: alias already taken"},
        {R"({"mode":"error","errno":2})", "2901 ret: 5 error: invalid parameter"},
        {R"({"mode":"error","errno":5})", "2909 ret: 14 error: api key expired"},
        {R"({"mode":"close"})", "2902 ret: 7 error: network error"},
    };
    for (const auto& [rule, expected] : cases) {
        Json::Value fault = ParseJson(rule);
        fault["command"] = "set_alias";
        SetControlFault(fault);
        EXPECT_EQ(SetAlias(), std::stoi(expected)) << rule;
        EXPECT_TRUE(LoggedError("farlink.v1", "Alias request alias: box " + expected.substr(5)));
    }
    EXPECT_EQ(CloudServiceActions(), std::vector<std::string>{"action 2"});
    EXPECT_EQ(ReadJson(kConf)["server_alias"]["alias"], "");
}

TEST_F(ServerAliasTest, GrantedAliasIsRecordedAndARunningDaemonReloaded) {
    ASSERT_EQ(SetAlias(), 2908);
    const Json::Value conf = ReadJson(kConf);
    Json::Value body = ParseJson(R"({"version":1,"command":"set_alias","command_version":1,
        "alias":"box","kivo_account":"alice@example.test","force":"false",
        "kivo_password":"e52d98c459819a11775936d8dfbb7929"})");  // MD5 of secret1
    body["serverID"] = conf["server_id"];
    EXPECT_EQ(LastAliasBody(), body);
    EXPECT_EQ(conf["server_alias"]["alias"], "box");
    EXPECT_EQ(ReadJson(ORVO::Paths::kAliasStatus)["box"],
              ParseJson(R"({"status":"success","error":""})"));
    EXPECT_TRUE(SystemdReloads().empty()) << "a stopped daemon is not reloaded";

    ASSERT_EQ(Relayd("on"), 0);
    EXPECT_EQ(SetAlias(R"({"server_alias":"other","force":true})"), 2908);
    EXPECT_EQ(LastAliasBody()["force"], "true");
    EXPECT_EQ(SystemdReloads(), std::vector<std::string>{"orvorelayd ok"});

    // Said to be on but not running: the reload fails after the alias is recorded.
    ASSERT_EQ(Relayd("off"), 0);
    WriteDaemonEmulation(ParseJson(R"({"status_output":"on"})"));
    EXPECT_EQ(SetAlias(R"({"server_alias":"third"})"), 2900);
    EXPECT_TRUE(LoggedError("farlink.v1", "Fail to set notify orvorelayd"));
    EXPECT_EQ(ReadJson(kConf)["server_alias"]["alias"], "third");
}

TEST_F(ServerAliasTest, AvailabilityFollowsRegionAndValidation) {
    const std::string yes = R"({"available":true,"code":2908})",
                      no = R"({"available":false,"code":2911})";
    const struct {
        std::string site, primaryFault;  // the primary's register site; "": its default
        bool validated, failover;
        std::string verdict;
    } cases[] = {
        {"", "", false, false, yes},
        {"cnc.example.net", "", true, false, yes},
        {"cnc.example.net", "", false, false, no},
        {"vac.example.net", "", false, false, no},
        {"cncx.example.net", "", false, false, yes},  // the dot is required
        {"", R"({"mode":"error","errno":4})", true, false, R"({"available":false,"code":2905})"},
        {"", R"({"mode":"no_host"})", true, false, R"({"available":false,"code":2900})"},
        // The secondary's default register site is in a restricted region.
        {"", R"({"mode":"close"})", false, true, no},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.site + c.primaryFault);
        ResetControlServer();
        if (!c.site.empty())
            SetControlSite(ParseJson(R"({"global_host":")" + kPrimary + R"(","answer":{"host":")" +
                                     c.site + "\"}}"));
        Json::Value fault =
            ParseJson(c.primaryFault.empty() ? R"({"mode":"normal"})" : c.primaryFault);
        fault["host"] = kPrimary;
        SetControlFault(fault);
        WriteAccount(ParseJson(c.validated ? R"({"realname_validated":true})" : "{}"));
        WriteFile(ORVO::Paths::kHostInfo, c.failover ? "farlink_enable_failover=\"true\"\n" : "");
        syslogMark_ = SyslogMark();
        EXPECT_EQ(Call("ORVO.Core.Farlink", 3, "check_availability"),
                  Answer(0, ParseJson(c.verdict)));
        EXPECT_EQ(ControlRecords().size(), c.failover ? 2u : 1u);
        EXPECT_TRUE(c.primaryFault.empty() || c.failover ||
                    LoggedError("farlink.v3", "Failed to get register site host"));
    }
}

}  // namespace
}  // namespace farlink_test
