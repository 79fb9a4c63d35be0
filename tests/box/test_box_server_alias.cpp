// ORVO.Core.Farlink "set_server_alias" v1 and v2 and "check_availability" v3
// through the box's host, against the box's control server, relay daemon and
// account state. Runs inside a box.
#include <orvo/paths.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "box_fixture.h"

namespace farlink_test {
namespace {

const std::string kConf = ORVO::Paths::kRelaydConf, kMisc = ORVO::Paths::kMiscConf;
const std::string kPrimary = FARLINK_PRIMARY_CONTROL_HOST;
const std::string kSecondary = FARLINK_SECONDARY_CONTROL_HOST;

// `label` and the domain of a global host: how the box's control server
// names register sites ("rs", "cnc") and the relay-information site.
std::string Beside(const std::string& global, const char* label) {
    return label + global.substr(global.find('.'));
}
const std::string kSite = Beside(kPrimary, "rs");

class ServerAliasTest : public BoxTest {
protected:
    // The API code, 2908 for success; `logged` must follow from farlink.v<version>.
    int SetAlias(int version, const Json::Value& params, const std::string& logged = "") {
        syslogMark_ = SyslogMark();
        const Json::Value answer = Call("ORVO.Core.Farlink", version, "set_server_alias", params);
        EXPECT_TRUE(logged.empty() || WaitForLogged("farlink.v" + std::to_string(version), logged))
            << logged;
        return answer["success"] == true ? 2908 : answer["error"]["code"].asInt();
    }
    // Version 1 with a request that passes every check, with `changes`
    // merged in ("-" drops a member).
    int SetAlias(const std::string& changes = "{}") {
        Json::Value params = ParseJson(
            R"({"kivo_account":"alice@example.test","server_alias":"box","kivo_password":"secret1"})");
        const Json::Value changed = ParseJson(changes);
        for (const auto& name : changed.getMemberNames()) params[name] = changed[name];
        for (const auto& name : params.getMemberNames())
            if (params[name] == "-") params.removeMember(name);
        return SetAlias(1, params);
    }
    int SetAliasV2(const std::string& logged,
                   const std::string& params = R"({"server_alias":"b"})") {
        return SetAlias(2, ParseJson(params), logged);
    }
    // "command@host" of the requests from the `from`th on, heartbeats left
    // out; `aliasBody` gets the last alias request's body.
    std::vector<std::string> Sent(Json::Value& aliasBody, Json::ArrayIndex from = 0) {
        std::vector<std::string> sent;
        const Json::Value records = ControlRecords();
        for (Json::ArrayIndex i = from; i < records.size(); ++i) {
            if (records[i]["command"] == "heartbeat") continue;
            sent.push_back(records[i]["command"].asString() + "@" + records[i]["host"].asString());
            if (records[i]["command"] == "set_alias") aliasBody = records[i]["body"];
        }
        return sent;
    }
    std::vector<std::string> Sent(Json::ArrayIndex from = 0) {
        Json::Value ignored;
        return Sent(ignored, from);
    }
};

TEST_F(ServerAliasTest, ParametersAreCheckedBeforeAnythingIsSent) {
    // Which shapes are refused is the unit tests' (AliasRules); here, what is logged.
    const std::pair<std::string, std::string> refused[] = {
        {R"({"kivo_account":"-"})", "Invalid parameter"},
        {R"({"force":"yes"})", "Invalid parameter"},
        {R"({"server_alias":"a_b"})", "alias format error: a_b"},
        {R"({"kivo_account":"alice@example.c"})", "kivo account format error: alice@example.c"},
        {R"({"kivo_password":"12345"})", "kivo passowrd length is invaild: 5"},
    };
    for (const auto& [changes, logged] : refused) {
        EXPECT_EQ(SetAlias(changes), 2901) << changes;
        EXPECT_TRUE(LoggedError("farlink.v1", logged)) << logged;
    }
    EXPECT_TRUE(Sent().empty());
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
        EXPECT_EQ(Sent(before), c.commands) << c.fault;
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
    Json::Value sent;
    Sent(sent);
    EXPECT_EQ(sent, body);
    EXPECT_EQ(conf["server_alias"]["alias"], "box");
    EXPECT_EQ(ReadJson(ORVO::Paths::kAliasStatus)["box"],
              ParseJson(R"({"status":"success","error":""})"));
    EXPECT_TRUE(SystemdReloads().empty()) << "a stopped daemon is not reloaded";

    ASSERT_EQ(Relayd("on"), 0);
    EXPECT_EQ(SetAlias(R"({"server_alias":"other","force":true})"), 2908);
    Sent(sent);
    EXPECT_EQ(sent["force"], "true");
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

TEST_F(ServerAliasTest, Version2RefusedRequestOrAccountSendsNothing) {
    EXPECT_EQ(SetAliasV2("Invalid parameter", "{}"), 2901);
    EXPECT_EQ(SetAliasV2("alias format error: a_b", R"({"server_alias":"a_b"})"), 2901);
    const std::string failed = "ERR_GET_KIVO_ACCOUNT_FAILED error code = ";
    const std::tuple<std::string, int, std::string> accounts[] = {
        {R"({"bound":false})", 2909, failed + "3"},
        {R"({"get_error":4})", 2902, failed + "4"},
        {R"({"get_error":2})", 2900, failed + "2"},
        {R"({"kivo_id":"K-1","auth_key":""})", 2900, "invalid kivo inforamtion, id: K-1 authkey: "},
    };
    for (const auto& [account, code, logged] : accounts) {
        WriteAccount(ParseJson(account));
        EXPECT_EQ(SetAliasV2(logged), code) << account;
    }
    EXPECT_TRUE(ControlRecords().empty());
}

// Each case starts with the daemon stopped, so it registers: at the primary
// and, when that fails and fail-over is on, once at the secondary; the
// register site comes from whichever registered.
TEST_F(ServerAliasTest, Version2RegistrationFailsOverOnlyWhenEnabledAndOnce) {
    const std::string regP = "register@" + kPrimary, regS = "register@" + kSecondary,
                      siteP = "get_register_site@" + kPrimary, failed = "Register serverid failed",
                      taken = "Alias request alias: b ret: 3 error: alias already taken";
    const std::vector<std::string> refused = {regP, siteP, "set_alias@" + Beside(kPrimary, "rs")},
                                   failedOver = {regP, regS, "get_register_site@" + kSecondary,
                                                 "set_alias@" + Beside(kSecondary, "cnc")};
    const struct {
        bool failover;
        std::string failing;  // "command@host" answered with `error`; "*": any host
        int error, code;
        std::vector<std::string> sent;
        std::string logged;
    } cases[] = {
        {false, regP, 4, 2905, {regP}, failed + ", failover to cn is disable"},
        {true, "register@*", 4, 2905, {regP, regS}, failed},
        {true, "get_register_site@*", 4, 2905, {regP, siteP}, "Get register site failed"},
        {false, "set_alias@*", 6, 2904, refused, taken},
        {true, regP, 4, 2908, failedOver, "Register failed, try " + kSecondary},
    };
    Json::Value body;
    for (const auto& c : cases) {
        ResetControlServer();
        WriteFile(ORVO::Paths::kHostInfo,
                  std::string("farlink_enable_failover=") + (c.failover ? "true" : "false"));
        Json::Value fault = ParseJson(R"({"mode":"error"})");
        fault["command"] = c.failing.substr(0, c.failing.find('@'));
        fault["host"] = c.failing.substr(c.failing.find('@') + 1);
        fault["errno"] = c.error;
        SetControlFault(fault);
        EXPECT_EQ(SetAliasV2(c.logged), c.code) << c.failing;
        EXPECT_EQ(Sent(body), c.sent) << c.failing;
        // Written before the alias request, whatever its answer.
        EXPECT_EQ(std::filesystem::exists(kMisc), c.sent.size() > 2) << c.failing;
    }
    EXPECT_EQ(body["url"], "https://" + Beside(kSecondary, "relayinfo"));
}

TEST_F(ServerAliasTest, Version2GrantedAliasCarriesTheBoundAccountAndIsRecorded) {
    // An account and password as version 1 takes them are not read.
    ASSERT_EQ(
        SetAliasV2("", R"({"server_alias":"b","kivo_account":"x@y.test","kivo_password":"p"})"),
        2908);
    const Json::Value account = ReadJson(ORVO::Paths::kKivoAccount);
    Json::Value body, expected = ParseJson(R"({"version":1,"command":"set_alias",
        "command_version":1,"alias":"b","force":"false","smartdns_support_type":1})");
    Sent(body);
    expected["serverID"] = ReadJson(kConf)["server_id"];
    expected["kivo_id"] = account["kivo_id"];
    expected["auth_key"] = account["auth_key"];
    expected["url"] = "https://" + Beside(kPrimary, "relayinfo");
    EXPECT_EQ(body, expected);

    // A daemon with a server ID: no registration, no discovery. Without a
    // portal domain the default URL is sent; a present misc.conf is only read.
    ASSERT_EQ(Relayd("on"), 0);
    Json::Value conf = ReadJson(kConf);
    conf["server_control"].removeMember("portal_domain");
    WriteJson(kConf, conf);
    const std::string misc =
        R"({"relay_tunnel":{},"upnp":{},"smartdns":{"smartdns_support_type":2}})";
    WriteFile(kMisc, misc);
    const Json::ArrayIndex before = ControlRecords().size();
    ASSERT_EQ(SetAliasV2("", R"({"server_alias":"c","force":true})"), 2908);
    EXPECT_EQ(Sent(body, before), std::vector<std::string>{"set_alias@" + Beside(kPrimary, "rs")});
    EXPECT_EQ(body["url"], FARLINK_DEFAULT_RELAYINFO_URL);
    EXPECT_EQ(body["smartdns_support_type"], 2);
    EXPECT_EQ(body["force"], "true");
    EXPECT_EQ(ReadFile(kMisc), misc);
    EXPECT_EQ(SystemdReloads(), std::vector<std::string>{"orvorelayd ok"});
}

}  // namespace
}  // namespace farlink_test
