// ORVO.Core.Farlink "set_server_alias" v2 through the box's host: the account
// from the account service, registration with fail-over, the misc settings
// and the relay-information URL in the alias request. Runs inside a box.
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

class ServerAliasV2Test : public BoxTest {
protected:
    // The API code, 2908 for success; `logged` must follow from farlink.v2.
    int SetAlias(const std::string& logged, const std::string& params = R"({"server_alias":"b"})") {
        syslogMark_ = SyslogMark();
        const Json::Value answer =
            Call("ORVO.Core.Farlink", 2, "set_server_alias", ParseJson(params));
        EXPECT_TRUE(logged.empty() || WaitForLogged("farlink.v2", logged)) << logged;
        return answer["success"] == true ? 2908 : answer["error"]["code"].asInt();
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
};

TEST_F(ServerAliasV2Test, RefusedRequestOrAccountSendsNothing) {
    EXPECT_EQ(SetAlias("Invalid parameter", "{}"), 2901);
    EXPECT_EQ(SetAlias("alias format error: a_b", R"({"server_alias":"a_b"})"), 2901);
    const std::string failed = "ERR_GET_KIVO_ACCOUNT_FAILED error code = ";
    const std::tuple<std::string, int, std::string> accounts[] = {
        {R"({"bound":false})", 2909, failed + "3"},
        {R"({"get_error":4})", 2902, failed + "4"},
        {R"({"get_error":2})", 2900, failed + "2"},
        {R"({"kivo_id":"K-1","auth_key":""})", 2900, "invalid kivo inforamtion, id: K-1 authkey: "},
    };
    for (const auto& [account, code, logged] : accounts) {
        WriteAccount(ParseJson(account));
        EXPECT_EQ(SetAlias(logged), code) << account;
    }
    EXPECT_TRUE(ControlRecords().empty());
}

// Each case starts with the daemon stopped, so it registers: at the primary
// and, when that fails and fail-over is on, once at the secondary; the
// register site comes from whichever registered.
TEST_F(ServerAliasV2Test, RegistrationFailsOverOnlyWhenEnabledAndOnce) {
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
        EXPECT_EQ(SetAlias(c.logged), c.code) << c.failing;
        EXPECT_EQ(Sent(body), c.sent) << c.failing;
        // Written before the alias request, whatever its answer.
        EXPECT_EQ(std::filesystem::exists(kMisc), c.sent.size() > 2) << c.failing;
    }
    EXPECT_EQ(body["url"], "https://" + Beside(kSecondary, "relayinfo"));
}

TEST_F(ServerAliasV2Test, GrantedAliasCarriesTheBoundAccountAndIsRecorded) {
    // An account and password as version 1 takes them are not read.
    ASSERT_EQ(SetAlias("", R"({"server_alias":"b","kivo_account":"x@y.test","kivo_password":"p"})"),
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
    ASSERT_EQ(SetAlias("", R"({"server_alias":"c","force":true})"), 2908);
    EXPECT_EQ(Sent(body, before), std::vector<std::string>{"set_alias@" + Beside(kPrimary, "rs")});
    EXPECT_EQ(body["url"], FARLINK_DEFAULT_RELAYINFO_URL);
    EXPECT_EQ(body["smartdns_support_type"], 2);
    EXPECT_EQ(body["force"], "true");
    EXPECT_EQ(ReadFile(kMisc), misc);
    EXPECT_EQ(SystemdReloads(), std::vector<std::string>{"orvorelayd ok"});
}

}  // namespace
}  // namespace farlink_test
