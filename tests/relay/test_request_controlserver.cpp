// The control server's own behaviour that the box relies on: which host
// plays which part, fault rules, site answers, reset and records.
#include <orvo/relayd.h>

#include "test_request_harness.h"

using namespace ORVO::Relay;

namespace {

class ControlServerBehaviour : public farlink_test::ControlServerTest {
protected:
    static void SetUpTestSuite() {
        ControlServerTest::SetUpTestSuite();
        // /etc is private here; the names stand for the deployment's hosts.
        std::ofstream("/etc/hosts", std::ios::app)
            << "127.0.0.1 global.farlink.test global.farlink-cn.test rs.farlink.test\n";
    }

    Json::Value Ask(const std::string& host, const Json::Value& body, bool* sent = nullptr) {
        Request request(Server().Url(host), body, true);
        const bool ok = request.Send();
        if (sent != nullptr) *sent = ok;
        Json::Value answer;
        request.GetResponse(answer);
        return answer;
    }

    static Json::Value Body(const char* command) {
        Json::Value body(Json::objectValue);
        body["version"] = 1;
        body["command"] = command;
        return body;
    }
};

TEST_F(ControlServerBehaviour, EachGlobalHostNamesItsOwnRegisterSite) {
    EXPECT_EQ(Ask("global.farlink.test", Body("get_register_site"))["host"], "rs.farlink.test");
    EXPECT_EQ(Ask("127.0.0.1", Body("get_register_site"))["host"], "rs.farlink.test");
    const Json::Value secondary = Ask("global.farlink-cn.test", Body("get_register_site"));
    EXPECT_EQ(secondary["host"], "cnc.farlink-cn.test");
    EXPECT_EQ(secondary["region"], "cn");
    EXPECT_EQ(secondary["ddns_domain"], "direct.farlink-cn.test");

    Json::Value site(Json::objectValue);
    site["global_host"] = "global.farlink-cn.test";
    site["answer"]["errno"] = 0;
    site["answer"]["host"] = "vac.elsewhere.test";
    site["answer"]["extra"] = true;
    ASSERT_TRUE(Server().Control("site", site));
    EXPECT_EQ(Ask("global.farlink-cn.test", Body("get_register_site")), site["answer"]);
    EXPECT_EQ(Ask("global.farlink.test", Body("get_register_site"))["host"], "rs.farlink.test");

    ASSERT_TRUE(Server().Control("reset"));
    EXPECT_EQ(Ask("global.farlink-cn.test", Body("get_register_site"))["host"],
              "cnc.farlink-cn.test");
}

TEST_F(ControlServerBehaviour, FaultsHitOnlyMatchingRequestsAndRunOut) {
    Json::Value fault(Json::objectValue);
    fault["host"] = "global.farlink.test";
    fault["command"] = "get_register_site";
    fault["count"] = 2;
    ASSERT_TRUE(Server().Fault("no_host", fault));

    EXPECT_FALSE(Ask("global.farlink-cn.test", Body("get_register_site"))["host"].isNull());
    EXPECT_EQ(Ask("global.farlink.test", Body("heartbeat"))["errno"], 0);
    EXPECT_FALSE(Ask("global.farlink.test", Body("get_register_site")).isMember("host"));
    // An address stands for the primary global host.
    EXPECT_FALSE(Ask("127.0.0.1", Body("get_register_site")).isMember("host"));
    EXPECT_EQ(Ask("global.farlink.test", Body("get_register_site"))["host"], "rs.farlink.test");

    ASSERT_TRUE(Server().Fault("host_not_string", fault));
    EXPECT_EQ(Ask("global.farlink.test", Body("get_register_site"))["host"], 42);

    Json::Value bad(Json::objectValue);
    bad["count"] = "two";
    EXPECT_FALSE(Server().Fault("error", bad));
    EXPECT_FALSE(Server().Fault("explode"));
}

TEST_F(ControlServerBehaviour, RefusesRequestsItCannotServe) {
    EXPECT_EQ(Ask("rs.farlink.test", Body("dance"))["errno"], 1);
    Json::Value noCommand(Json::objectValue);
    EXPECT_EQ(Ask("rs.farlink.test", noCommand)["errno"], 2);
    Json::Value future = Body("heartbeat");
    future["version"] = 2;
    EXPECT_EQ(Ask("rs.farlink.test", future)["errno"], 13);

    Json::Value withoutKey = Body("register");
    withoutKey["auth"]["serial"] = "S";
    EXPECT_EQ(Ask("global.farlink.test", withoutKey)["errno"], 3);
    Json::Value numericSerial = Body("register");
    numericSerial["auth"]["serial"] = 7;
    numericSerial["auth"]["api_key"] = "k";
    EXPECT_EQ(Ask("global.farlink.test", numericSerial)["errno"], 3);
}

TEST_F(ControlServerBehaviour, ServerIdsAreStableAndResetForgetsRegistrations) {
    Json::Value registration = Body("register");
    registration["auth"]["serial"] = "SERIAL-9";
    registration["auth"]["api_key"] = "k";
    const std::string id = Ask("global.farlink.test", registration)["serverID"].asString();
    EXPECT_EQ(Ask("global.farlink-cn.test", registration)["serverID"], id);

    Json::Value alias = Body("set_alias");
    alias["serverID"] = id;
    alias["alias"] = "box";
    EXPECT_EQ(Ask("rs.farlink.test", alias)["errno"], 0);
    ASSERT_TRUE(Server().Control("reset"));
    EXPECT_EQ(Ask("rs.farlink.test", alias)["errno"], 10);
    EXPECT_EQ(Ask("global.farlink.test", registration)["serverID"], id);
}

TEST_F(ControlServerBehaviour, RecordsEveryRequestInOrder) {
    Request raw(Server().Url("rs.farlink.test", "/other"), Body("heartbeat"), true);
    ASSERT_TRUE(raw.Send());
    ASSERT_TRUE(Server().Fault("close"));
    bool sent = true;
    Ask("global.farlink.test", Body("register"), &sent);
    EXPECT_FALSE(sent);

    const auto records = Server().Records();
    ASSERT_EQ(records.size(), 2u) << "reset starts the records over";
    EXPECT_EQ(records[0]["seq"], 1);
    EXPECT_EQ(records[0]["host"], "rs.farlink.test");
    EXPECT_EQ(records[0]["path"], "/other");
    EXPECT_EQ(records[0]["command"], "heartbeat");
    EXPECT_EQ(records[1]["seq"], 2);
    EXPECT_EQ(records[1]["command"], "register");
}

}  // namespace
