// Request against the real control server and against places where no
// server answers.
#include <curl/curl.h>

#include <chrono>

#include "test_request_harness.h"

using namespace ORVO::Relay;

namespace {

Json::Value Command(const char* command) {
    Json::Value body(Json::objectValue);
    body["version"] = 1;
    body["command"] = command;
    return body;
}

class RequestTest : public farlink_test::ControlServerTest {};

TEST_F(RequestTest, PostsTheBodyAsJsonAndReadsTheAnswer) {
    Json::Value body = Command("get_register_site");
    body["note"] = "a \"quoted\" text";
    Request request(Server().Url(), body, true);
    ASSERT_TRUE(request.Send());
    Json::Value answer;
    ASSERT_TRUE(request.GetResponse(answer));
    EXPECT_EQ(request.GetError(), RELAYD_OK);
    EXPECT_EQ(answer["host"], "rs.farlink.test");

    const auto records = Server().Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["method"], "POST");
    EXPECT_EQ(records[0]["scheme"], "http");
    EXPECT_EQ(records[0]["path"], "/Serv.php");
    EXPECT_EQ(records[0]["body"], body);
}

TEST_F(RequestTest, UnusableAnswersAreToldAndServerErrorsAreAnswers) {
    for (const auto& [mode, sent, error] : {std::tuple{"malformed", true, RELAYD_ERR_BAD_RESPONSE},
                                            {"close", false, RELAYD_ERR_NETWORK}}) {
        SCOPED_TRACE(mode);
        ASSERT_TRUE(Server().Fault(mode));
        Request request(Server().Url(), Command("heartbeat"), true);
        EXPECT_EQ(request.Send(), sent);
        EXPECT_EQ(request.GetError(), error);
        Json::Value answer;
        EXPECT_FALSE(request.GetResponse(answer));
    }
    // An HTTP error status is not an answer: the control interface answers
    // unknown paths with 404 and a JSON object.
    Request notFound("http://127.0.0.1:" + std::to_string(Server().controlPort) + "/control/x",
                     Json::Value(Json::objectValue), true);
    EXPECT_FALSE(notFound.Send());
    EXPECT_EQ(notFound.GetError(), RELAYD_ERR_UNSUPPORTED);

    Json::Value fault(Json::objectValue);
    fault["errno"] = 4;
    ASSERT_TRUE(Server().Fault("error", fault));
    Request request(Server().Url(), Command("register"), true);
    ASSERT_TRUE(request.Send());
    Json::Value answer;
    ASSERT_TRUE(request.GetResponse(answer));
    EXPECT_EQ(RespErrMap(ParseServerError(answer)), RELAYD_ERR_SERVER_BUSY);
}

TEST_F(RequestTest, TotalTimeoutEndsOnlyASilentExchange) {
    ASSERT_TRUE(Server().Fault("silent"));
    Request request(Server().Url(), Command("heartbeat"), true);
    ASSERT_TRUE(request.SetTimeout(1));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(request.Send());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(request.GetError(), RELAYD_ERR_TIMEOUT);
    EXPECT_EQ(request.GetCurlResult(), CURLE_OPERATION_TIMEDOUT);

    // The withheld answer must not hold up anyone else; a delayed answer
    // within the time allowed arrives.
    Json::Value delay(Json::objectValue);
    delay["delay_ms"] = 300;
    ASSERT_TRUE(Server().Fault("delay", delay));
    Request other(Server().Url(), Command("heartbeat"), true);
    other.SetTimeout(10);
    EXPECT_TRUE(other.Send());
    EXPECT_EQ(other.GetError(), RELAYD_OK);
}

TEST_F(RequestTest, HttpsTrustsOnlyTheSystemStore) {
    Request request(Server().Url("localhost", true), Command("heartbeat"), true);
    request.SetConnectionTimeout(5);
    EXPECT_FALSE(request.Send());
    EXPECT_EQ(request.GetError(), RELAYD_ERR_TLS);

    // /etc is a private overlay here: trust the test CA as the box does.
    std::ifstream ca(Server().CaPath());
    std::ofstream("/etc/ssl/certs/ca-certificates.crt", std::ios::app) << ca.rdbuf();
    EXPECT_TRUE(request.Send()) << "curl result " << request.GetCurlResult();
    EXPECT_EQ(Server().Records().back()["scheme"], "https");
}

TEST(RequestTransport, FailuresWithoutAServerAreTold) {
    const std::tuple<std::string, RELAYD_RET, int> cases[] = {
        {"http://nonexistent.invalid/Serv.php", RELAYD_ERR_RESOLVE, CURLE_COULDNT_RESOLVE_HOST},
        {std::string("http://127.0.0.1:") + farlink_test::kClosedPort + "/Serv.php",
         RELAYD_ERR_NETWORK, CURLE_COULDNT_CONNECT},
        // Only the web schemes: a configuration must not make us read files.
        {"file:///etc/passwd", RELAYD_ERR_INVALID_ARG, CURLE_UNSUPPORTED_PROTOCOL},
    };
    for (const auto& [url, error, curlResult] : cases) {
        Request request(url, Command("heartbeat"), true);
        EXPECT_FALSE(request.Send()) << url;
        EXPECT_EQ(request.GetError(), error) << url;
        EXPECT_EQ(request.GetCurlResult(), curlResult) << url;
    }
}

TEST(RequestTransport, RefusesUnusableSettings) {
    Request request("", Json::Value(), true);
    EXPECT_FALSE(request.Send());
    EXPECT_EQ(request.GetError(), RELAYD_ERR_INVALID_ARG);

    EXPECT_FALSE(request.Set("", Json::Value(Json::objectValue), true));
    EXPECT_FALSE(request.Set("http://127.0.0.1/", Json::Value(Json::arrayValue), true));
    EXPECT_FALSE(request.Set("http://127.0.0.1/", Json::Value("text"), true));
    EXPECT_FALSE(request.SetConnectionTimeout(0));
    EXPECT_FALSE(request.SetConnectionTimeout(-5));
    EXPECT_FALSE(request.SetTimeout(0));
    EXPECT_FALSE(request.Send()) << "refused settings must not make the request usable";
}

}  // namespace
