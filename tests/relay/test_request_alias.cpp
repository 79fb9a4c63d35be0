// AliasRequest: the register site comes from the relay configuration file,
// the outcome from the control server's answer.
#include <orvo/paths.h>
#include <sys/stat.h>

#include "test_request_harness.h"

using namespace ORVO::Relay;

namespace {

class AliasRequestTest : public farlink_test::ControlServerTest {
protected:
    void SetUp() override {
        ControlServerTest::SetUp();
        PointRegisterSiteAt("127.0.0.1", Server().httpPort);
    }

    // The configuration's other sections are the defaults.
    static void PointRegisterSiteAt(const std::string& host, int port) {
        Json::Value document;
        document["server_control"]["host"] = host;
        document["server_control"]["scheme"] = "http";
        document["server_control"]["port"] = port;
        mkdir(ORVO::Paths::kRelaydConfDir, 0755);
        ASSERT_TRUE(RelaydConf::WriteJsonFile(ORVO::Paths::kRelaydConf, document));
    }

    // Registers a box at the control server; its server ID.
    std::string Register(const std::string& serial) {
        Json::Value body = relay_test::ParseJson(R"({"version": 1, "command": "register",
            "auth": {"serial": ")" + serial + R"(", "api_key": "key"}})");
        Request request(Server().Url(), body, true);
        Json::Value answer;
        EXPECT_TRUE(request.Send() && request.GetResponse(answer));
        return answer["serverID"].asString();
    }

    static ALIAS_RET SendAlias(ALIAS_REQUEST_CMD command, const std::string& serverId,
                               const std::string& alias, const char* force = "false") {
        Json::Value body(Json::objectValue);
        body["serverID"] = serverId;
        body["alias"] = alias;
        body["force"] = force;
        AliasRequest request;
        EXPECT_TRUE(request.SetRequest(command, body));
        ALIAS_RET ret = ALIAS_RET_UNSET;
        const bool sent = request.Send(ret);
        EXPECT_EQ(sent, ret == ALIAS_OK);
        return ret;
    }
};

TEST_F(AliasRequestTest, BindsAliasesAtTheRegisterSite) {
    const std::string first = Register("SERIAL-1");
    const std::string second = Register("SERIAL-2");
    ASSERT_FALSE(first.empty());
    ASSERT_NE(first, second);

    EXPECT_EQ(SendAlias(ALIAS_REQUEST_SET, first, "MyBox"), ALIAS_OK);
    const Json::Value sent = Server().Records().back()["body"];
    EXPECT_EQ(sent["command"], "set_alias");
    EXPECT_EQ(sent["version"], 1);
    EXPECT_EQ(sent["serverID"], first);
    EXPECT_EQ(sent["force"], "false");

    // The server's own rules (taken, forced) come back as results.
    EXPECT_EQ(SendAlias(ALIAS_REQUEST_QUERY, second, "mybox"), ALIAS_ERR_TAKEN);
    EXPECT_EQ(Server().Records().back()["command"], "query_alias");
    EXPECT_EQ(SendAlias(ALIAS_REQUEST_SET, second, "mybox", "true"), ALIAS_OK);
}

TEST_F(AliasRequestTest, ServerErrorsBecomeAliasResults) {
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
        SCOPED_TRACE(errorNumber.toStyledString());
        Json::Value fault(Json::objectValue);
        fault["errno"] = errorNumber;
        ASSERT_TRUE(Server().Fault("error", fault));
        EXPECT_EQ(SendAlias(ALIAS_REQUEST_SET, "id", "box"), expected);
    }
    ASSERT_TRUE(Server().Fault("malformed"));
    EXPECT_EQ(SendAlias(ALIAS_REQUEST_SET, "id", "box"), ALIAS_ERR_UNKNOWN);
    ASSERT_TRUE(Server().Fault("close"));
    EXPECT_EQ(SendAlias(ALIAS_REQUEST_SET, "id", "box"), ALIAS_ERR_NETWORK);
}

TEST_F(AliasRequestTest, ReadsTheRegisterSiteWhenSent) {
    AliasRequest request;
    ASSERT_TRUE(request.SetRequest(ALIAS_REQUEST_SET, relay_test::ParseJson(R"({"alias": "b"})")));
    PointRegisterSiteAt("127.0.0.1", std::atoi(farlink_test::kClosedPort));
    ALIAS_RET ret = ALIAS_RET_UNSET;
    EXPECT_FALSE(request.Send(ret));
    EXPECT_EQ(ret, ALIAS_ERR_NETWORK);
    PointRegisterSiteAt("nonexistent.invalid", 80);
    EXPECT_EQ(SendAlias(ALIAS_REQUEST_SET, "id", "box"), ALIAS_ERR_RESOLVE);
}

TEST(AliasRequestSetup, RefusesRequestsItCannotSend) {
    AliasRequest request;
    EXPECT_FALSE(request.SetRequest(ALIAS_REQUEST_SET, Json::Value(Json::arrayValue)));
    EXPECT_FALSE(
        request.SetRequest(static_cast<ALIAS_REQUEST_CMD>(3), Json::Value(Json::objectValue)));
    ALIAS_RET ret = ALIAS_RET_UNSET;
    EXPECT_FALSE(request.Send(ret));
    EXPECT_EQ(ret, ALIAS_ERR_PARAM);
}

}  // namespace
