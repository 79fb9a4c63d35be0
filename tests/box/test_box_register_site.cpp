// Register-site discovery and server registration against the box's control
// server: the helpers called with the host's credentials, and
// ORVO.Core.Farlink.RegisterSite "get" through the host. Runs inside a box.
#include <arpa/inet.h>
#include <farlink/unique_fd.h>
#include <orvo/paths.h>

#include <chrono>
#include <cstring>
#include <regex>

#include "box_fixture.h"
#include "utils.h"

namespace farlink_test {
namespace {

using Ret = ORVO::Relay::RELAYD_RET;
const std::string kPrimary = FARLINK_PRIMARY_CONTROL_HOST;
const std::string kSecondary = FARLINK_SECONDARY_CONTROL_HOST;
const std::string kSecondarySite = "cnc" + kSecondary.substr(kSecondary.find('.'));
const std::string kConf = ORVO::Paths::kRelaydConf;

class RegisterSiteTest : public BoxTest {
protected:
    void Fault(const std::string& host, const std::string& rule) {
        if (rule.empty()) return;
        Json::Value fault = ParseJson(rule);
        fault["host"] = host;
        SetControlFault(fault);
    }
    void Failover(bool on) {
        WriteFile(ORVO::Paths::kHostInfo,
                  std::string("farlink_enable_failover=\"") + (on ? "true" : "false") + "\"\n");
    }
    static bool ConfExists() { return access(kConf.c_str(), F_OK) == 0; }
};

// The module's discovery (https, source utils) and the API method (http, its
// own source) follow the same rules.
class QueryTest : public RegisterSiteTest, public ::testing::WithParamInterface<bool> {
protected:
    bool ViaApi() const { return GetParam(); }
    // The API code (2908 for success) and the answer handed out.
    std::pair<int, Json::Value> Query() {
        Json::Value response;
        if (!ViaApi()) return {AsHost([&] { return GetRegisterSiteWithCn(response); }), response};
        response = Call("ORVO.Core.Farlink.RegisterSite", 1, "get");
        return {response["success"] == true ? 2908 : response["error"]["code"].asInt(),
                response["data"]};
    }
};

TEST_P(QueryTest, FailOverAndErrorsDecideTheAnswer) {
    Json::Value site;
    site["global_host"] = kPrimary;
    site["answer"] = ParseJson(R"({"errno":0,"host":"x.test","extra":[1,{"a":true}]})");
    const std::string tryNext = "get register site fail, try " + kSecondary;
    const struct {
        bool failover;
        std::string primaryFault, secondaryFault;
        int code;
        std::string host;  // of the answer handed out
        size_t requests;
        std::string logged;
    } cases[] = {
        {true, "", "", 2908, "x.test", 1, ""},
        {false, R"({"mode":"error","errno":4})", "", 2905, "", 1, "get register site fail"},
        {true, R"({"mode":"close"})", "", 2908, kSecondarySite, 2, tryNext},
        // The last attempt's result counts.
        {true, R"({"mode":"error","errno":30})", R"({"mode":"error","errno":5})", 2909, "", 2,
         "get register site fail"},
        {false, R"({"mode":"malformed"})", "", 2900, "", 1, ""},
        // An answer that arrived ends the query even when it is unusable.
        {true, R"({"mode":"no_host"})", "", 2900, "", 1, "cannot parse a register site host"},
        {true, R"({"mode":"host_not_string"})", "", 2900, "", 1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.primaryFault + " / " + c.secondaryFault);
        ResetControlServer();
        SetControlSite(site);
        Failover(c.failover);
        Fault(kPrimary, c.primaryFault);
        Fault(kSecondary, c.secondaryFault);
        syslogMark_ = SyslogMark();
        const auto [code, data] = Query();
        EXPECT_EQ(code, c.code);
        if (!c.host.empty()) {
            EXPECT_EQ(data["host"], c.host);
            EXPECT_TRUE(c.host != "x.test" || data == site["answer"]) << "passed on whole";
        }
        std::string asked;
        for (const auto& record : ControlRecords()) {
            asked += record["scheme"].asString() + "://" + record["host"].asString() + " ";
            EXPECT_EQ(record["body"], ParseJson(R"({"version":1,"command":"get_register_site"})"));
        }
        const std::string scheme = ViaApi() ? "http://" : "https://";
        EXPECT_EQ(asked,
                  scheme + kPrimary + " " + (c.requests == 2 ? scheme + kSecondary + " " : ""));
        const std::string source = ViaApi() ? "farlink.registersite.v1" : "utils";
        EXPECT_TRUE(c.logged.empty() || LoggedError(source, c.logged)) << c.logged;
    }
}

INSTANTIATE_TEST_SUITE_P(Callers, QueryTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Api" : "Utils"; });

// A primary that takes the connection but never its TLS handshake costs the
// connection time-out, not the library's whole-exchange limit.
TEST_F(RegisterSiteTest, SilentPrimaryIsGivenUpAfterTheConnectionTimeOut) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(443);
    inet_pton(AF_INET, "127.0.10.99", &address.sin_addr);
    farlink::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.Get(), 8), 0);
    const std::string hosts = ReadFile("/etc/hosts");
    WriteFile("/etc/hosts", hosts + "127.0.10.99 " + kPrimary + "\n");
    Failover(true);
    const auto start = std::chrono::steady_clock::now();
    Json::Value response;
    EXPECT_EQ(AsHost([&] { return GetRegisterSiteWithCn(response); }), 2908);
    const auto took = std::chrono::steady_clock::now() - start;
    WriteFile("/etc/hosts", hosts);
    EXPECT_EQ(response["host"], kSecondarySite);
    EXPECT_GT(took, std::chrono::milliseconds(4500));
    EXPECT_LT(took, std::chrono::seconds(12)) << "5 s to connect, and slack for a loaded machine";
    EXPECT_TRUE(LoggedError("utils", "request send failed: 28, timed out"));
}

// Only a usable answer changes the configuration, and then as root.
TEST_F(RegisterSiteTest, SiteAndServerIdAreStoredOnlyFromUsableAnswers) {
    ORVO::Relay::RelaydConf conf(kConf.c_str());
    conf.serverGlobal.SetHost(kSecondary);  // both follow the record
    conf.serverId = "OLD";
    const struct {
        bool site;  // the register site, else the server ID
        std::string fault;
        int ret;
        std::string logged;
    } cases[] = {
        {true, R"({"mode":"no_host"})", 0, "cannot get a register site host"},
        {false, R"({"mode":"error","errno":0})", 0, "cannot get a serverid"},
        {false, R"({"mode":"error","errno":5})", 15, "api key expired"},
    };
    for (const auto& c : cases) {
        Fault("*", c.fault);
        Ret ret = ORVO::Relay::RELAYD_RET_UNSET;
        EXPECT_FALSE(AsHost([&] {
            return c.site ? GetRegisterSite(conf, ret) : RegisterServerId(conf, ret);
        })) << c.fault;
        EXPECT_EQ(ret, c.ret) << c.fault;
        EXPECT_TRUE(LoggedError("utils", c.logged)) << c.logged;
        EXPECT_FALSE(ConfExists());
    }
    EXPECT_EQ(conf.serverId, "OLD");
    EXPECT_EQ(CloudServiceActions(), std::vector<std::string>{"action 2"}) << "expired key only";

    ResetControlServer();
    Ret siteRet = ORVO::Relay::RELAYD_RET_UNSET, idRet = ORVO::Relay::RELAYD_RET_UNSET;
    ASSERT_TRUE(
        AsHost([&] { return GetRegisterSite(conf, siteRet) && RegisterServerId(conf, idRet); }));
    EXPECT_EQ(siteRet + idRet, 0);
    const Json::Value written = ReadJson(kConf);
    EXPECT_EQ(written["server_control"]["host"], kSecondarySite);
    EXPECT_EQ(written["server_control"]["region"], "cn");
    EXPECT_TRUE(std::regex_match(conf.serverId, std::regex("fl[0-9a-f]{16}"))) << conf.serverId;
    EXPECT_EQ(written["server_id"], conf.serverId);
    const Json::Value auth = ReadJson(ORVO::Paths::kAuthConf);
    Json::Value body = ParseJson(R"({"version":1,"command":"register"})");
    body["auth"] = auth;
    EXPECT_EQ(ControlRecords()[1]["host"], kSecondary);
    EXPECT_EQ(ControlRecords()[1]["body"], body);

    ASSERT_EQ(unlink(ORVO::Paths::kAuthConf), 0);
    Json::Value response;
    EXPECT_EQ(AsHost([&] { return SendRegisterServerId(conf, response); }), 255);
    EXPECT_TRUE(LoggedError("utils", "get auth token failed"));
    EXPECT_EQ(ControlRecords().size(), 2u) << "nothing sent without credentials";
}

// The digest itself and its size limit are the unit tests' (AliasRules).
TEST_F(RegisterSiteTest, RequestsThatCannotBePreparedAreLogged) {
    char out[65];
    EXPECT_EQ(GetMd5String(nullptr, out, 10), -1);
    EXPECT_TRUE(LoggedError("utils", "Invalid input.")) << "before the size is looked at";

    Json::Value response;
    Ret ret = ORVO::Relay::RELAYD_RET_UNSET;
    EXPECT_FALSE(GetRegisterSiteAPI("", response, ret));
    EXPECT_EQ(ret, 255) << "left alone";
    EXPECT_TRUE(ControlRecords().empty());
}

}  // namespace
}  // namespace farlink_test
