// The relay library's requests and the emulated daemon's heartbeats against
// the box's control server: the failures, limits and error mappings that the
// module's methods do not bring about. Runs inside a box.
#include <curl/curl.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <tuple>

#include "box_fixture.h"

namespace farlink_test {
namespace {

using namespace ORVO::Relay;

const std::string kSite = FARLINK_PRIMARY_CONTROL_HOST;
const std::string kUrl = "http://" + kSite + "/Serv.php";

Json::Value Command(const std::string& command) {
    return ParseJson(R"({"version": 1, "command": ")" + command + "\"}");
}

// Points the register site of the relay configuration at `host`:`port`.
void PointRegisterSiteAt(const std::string& host, int port, const std::string& serverId = "") {
    Json::Value conf(Json::objectValue);
    conf["server_control"]["host"] = host;
    conf["server_control"]["scheme"] = "http";
    conf["server_control"]["port"] = port;
    conf["server_id"] = serverId;
    ASSERT_TRUE(RelaydConf::WriteJsonFile(ORVO::Paths::kRelaydConf, conf));
}

class RelayRequestTest : public BoxTest {
protected:
    void Fault(const std::string& mode, const Json::Value& errorNumber = Json::Value()) {
        Json::Value fault(Json::objectValue);
        fault["mode"] = mode;
        if (!errorNumber.isNull()) fault["errno"] = errorNumber;
        SetControlFault(fault);
    }
};

// A body nested past the JSON reader's depth limit is not JSON to the
// control server, and no reason for it to stop serving.
TEST_F(RelayRequestTest, TheControlServerOutlivesABodyNestedTooDeep) {
    Json::Value deep(Json::objectValue);
    Json::Value* level = &deep;
    for (int i = 0; i < 1100; ++i) level = &((*level)["a"] = Json::Value(Json::objectValue));
    (void)Request(kUrl, deep, true).Send();
    Request request(kUrl, Command("heartbeat"), true);
    EXPECT_TRUE(request.Send()) << request.GetError();
}

// A malformed answer is told by the register-site queries (test_box_register_site).
TEST_F(RelayRequestTest, UnusableAnswersAreTold) {
    Fault("close");
    Request request(kUrl, Command("heartbeat"), true);
    EXPECT_FALSE(request.Send());
    EXPECT_EQ(request.GetError(), RELAYD_ERR_NETWORK);
    Json::Value answer;
    EXPECT_FALSE(request.GetResponse(answer));
    // An HTTP error status is not an answer: the control interface answers
    // unknown paths with 404 and a JSON object.
    Request notFound(std::string(std::getenv("FARLINK_BOX_CONTROL_URL")) + "/control/x",
                     Json::Value(Json::objectValue), true);
    EXPECT_FALSE(notFound.Send());
    EXPECT_EQ(notFound.GetError(), RELAYD_ERR_UNSUPPORTED);
}

TEST_F(RelayRequestTest, TotalTimeoutEndsOnlyASilentExchange) {
    Fault("silent");
    Request request(kUrl, Command("heartbeat"), true);
    ASSERT_TRUE(request.SetTimeout(1));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(request.Send());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(request.GetError(), RELAYD_ERR_TIMEOUT);
    EXPECT_EQ(request.GetCurlResult(), CURLE_OPERATION_TIMEDOUT);

    // A delayed answer within the time allowed arrives.
    SetControlFault(ParseJson(R"({"mode": "delay", "delay_ms": 300})"));
    Request other(kUrl, Command("heartbeat"), true);
    ASSERT_TRUE(other.SetTimeout(10));
    EXPECT_TRUE(other.Send());
    EXPECT_EQ(other.GetError(), RELAYD_OK);
}

// The box's certificate authority was added last to the system store.
TEST_F(RelayRequestTest, HttpsTrustsOnlyTheSystemStore) {
    const std::string store = "/etc/ssl/certs/ca-certificates.crt", trusted = ReadFile(store);
    const std::string ca = ReadFile(BoxRunDir() + "/ca.pem");
    ASSERT_TRUE(!ca.empty() && trusted.size() > ca.size());
    ASSERT_EQ(trusted.substr(trusted.size() - ca.size()), ca);
    WriteFile(store, trusted.substr(0, trusted.size() - ca.size()));
    Request request("https://" + kSite + "/Serv.php", Command("heartbeat"), true);
    EXPECT_FALSE(request.Send());
    EXPECT_EQ(request.GetError(), RELAYD_ERR_TLS);
    WriteFile(store, trusted);
    EXPECT_TRUE(request.Send()) << "curl result " << request.GetCurlResult();
    EXPECT_EQ(ControlRecords()[0]["scheme"], "https");
}

// The register site is read when the request is sent.
TEST_F(RelayRequestTest, AliasRequestsTurnEveryServerErrorIntoAResult) {
    AliasRequest early;
    ASSERT_TRUE(early.SetRequest(ALIAS_REQUEST_SET, ParseJson(R"({"alias": "b"})")));
    PointRegisterSiteAt("127.0.0.1", 1);  // nothing listens there
    ALIAS_RET ret = ALIAS_RET_UNSET;
    EXPECT_FALSE(early.Send(ret));
    EXPECT_EQ(ret, ALIAS_ERR_NETWORK);

    const auto send = [] {
        AliasRequest request;
        EXPECT_TRUE(request.SetRequest(
            ALIAS_REQUEST_SET,
            ParseJson(R"({"serverID": "id", "alias": "box", "force": "false"})")));
        ALIAS_RET ret = ALIAS_RET_UNSET;
        const bool sent = request.Send(ret);
        EXPECT_EQ(sent, ret == ALIAS_OK);
        return ret;
    };
    PointRegisterSiteAt("nonexistent.invalid", 80);
    EXPECT_EQ(send(), ALIAS_ERR_RESOLVE);
    PointRegisterSiteAt(kSite, 80);
    const std::pair<Json::Value, ALIAS_RET> cases[] = {
        {6, ALIAS_ERR_TAKEN},          {7, ALIAS_ERR_RESERVED},
        {2, ALIAS_ERR_PARAM},          {8, ALIAS_ERR_AUTH},
        {9, ALIAS_ERR_ACCOUNT_LIMIT},  {10, ALIAS_ERR_NOT_REGISTERED},
        {11, ALIAS_ERR_INTERNAL},      {12, ALIAS_ERR_ACCOUNT_UNVERIFIED},
        {5, ALIAS_ERR_APIKEY_EXPIRED}, {30, ALIAS_ERR_VIOLATION},
        {3, ALIAS_ERR_UNKNOWN},        {1, ALIAS_ERR_UNKNOWN},
        {99, ALIAS_ERR_UNKNOWN},       {"6", ALIAS_ERR_UNKNOWN},
    };
    for (const auto& [errorNumber, expected] : cases) {
        Fault("error", errorNumber);
        EXPECT_EQ(send(), expected) << errorNumber;
    }
    Fault("malformed");
    EXPECT_EQ(send(), ALIAS_ERR_UNKNOWN);
    Fault("close");
    EXPECT_EQ(send(), ALIAS_ERR_NETWORK);
}

// Each outcome is set up and then read on a reload (SIGHUP, or the one a
// change of SNI asks for).
TEST_F(RelayRequestTest, HeartbeatOutcomesBecomeTheDaemonsStatusWords) {
    const auto reports = [](const std::string& status, const std::string& error,
                            const std::string& serverId) {
        return WaitUntil(
            [&] {
                std::string id, s, e;
                return Daemon::GetStatus(id, s, e) && s == status && e == error && id == serverId;
            },
            std::chrono::seconds(15));
    };
    PointRegisterSiteAt(kSite, 80);
    // Only the heartbeats at start and after a reload: counts stay exact.
    WriteDaemonEmulation(ParseJson(R"({"heartbeat_interval": 600})"));
    ASSERT_EQ(Relayd("on"), 0);
    EXPECT_TRUE(reports("unregistered", "", ""));

    const std::tuple<Json::Value, std::string, int, const char*> cases[] = {
        // the server's errno (null: none), the site's host and port, the error word
        {Json::Value(), kSite, 80, ""},
        {30, kSite, 80, "err_violation"},
        {10, kSite, 80, "err_server"},
        {Json::Value(), "127.0.0.1", 1, "err_network"},
        {Json::Value(), "no-such-host.invalid", 80, "err_resolv"},
    };
    for (const auto& [errorNumber, host, port, error] : cases) {
        Fault(errorNumber.isNull() ? "normal" : "error", errorNumber);
        PointRegisterSiteAt(host, port, "SID-1");
        ASSERT_EQ(kill(DaemonPid().value_or(0), SIGHUP), 0);
        EXPECT_TRUE(reports(*error ? "connecting" : "connected", error, "SID-1")) << error;
    }
    const Json::Value records = ControlRecords();
    ASSERT_EQ(records.size(), 3u) << "none before the server ID";
    EXPECT_EQ(records[0]["body"],
              ParseJson(R"({"version": 1, "command": "heartbeat", "serverID": "SID-1"})"));

    Fault("normal");
    PointRegisterSiteAt(kSite, 80, "SID-2");
    ASSERT_TRUE(Utils::EnableRelaySNI("relay.example.test"));
    EXPECT_TRUE(reports("connected", "", "SID-2"));
    EXPECT_EQ(ControlRecords()[3]["body"]["serverID"], "SID-2");
}

}  // namespace
}  // namespace farlink_test
