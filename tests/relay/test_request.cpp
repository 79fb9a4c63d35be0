// Requests that fail before any server could answer, and the decoding of the
// control server's error numbers. The answers, time-outs and TLS of real
// exchanges are tested in the box (test_box_relay_requests).
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <orvo/relayd.h>

#include <string>
#include <tuple>

using namespace ORVO::Relay;

namespace {

TEST(RequestTransport, FailuresWithoutAServerAreTold) {
    Json::Value body(Json::objectValue);
    body["command"] = "heartbeat";
    const std::tuple<std::string, RELAYD_RET, int> cases[] = {
        {"http://nonexistent.invalid/Serv.php", RELAYD_ERR_RESOLVE, CURLE_COULDNT_RESOLVE_HOST},
        {"http://127.0.0.1:1/Serv.php", RELAYD_ERR_NETWORK, CURLE_COULDNT_CONNECT},
        // Only the web schemes: a configuration must not make us read files.
        {"file:///etc/passwd", RELAYD_ERR_INVALID_ARG, CURLE_UNSUPPORTED_PROTOCOL},
    };
    for (const auto& [url, error, curlResult] : cases) {
        Request request(url, body, true);
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
    EXPECT_FALSE(request.SetConnectionTimeout(0) || request.SetConnectionTimeout(-5) ||
                 request.SetTimeout(0));
    EXPECT_FALSE(request.Send()) << "refused settings must not make the request usable";

    AliasRequest alias;
    EXPECT_FALSE(alias.SetRequest(ALIAS_REQUEST_SET, Json::Value(Json::arrayValue)));
    EXPECT_FALSE(
        alias.SetRequest(static_cast<ALIAS_REQUEST_CMD>(3), Json::Value(Json::objectValue)));
    ALIAS_RET ret = ALIAS_RET_UNSET;
    EXPECT_FALSE(alias.Send(ret));
    EXPECT_EQ(ret, ALIAS_ERR_PARAM);
}

TEST(ServerErrors, OnlyIntegerErrorNumbersOfObjectsAreReadAndEachTranslates) {
    const auto withErrno = [](const Json::Value& number) {
        Json::Value answer(Json::objectValue);
        answer["errno"] = number;
        return answer;
    };
    EXPECT_EQ(ParseServerError(Json::Value(Json::objectValue)), RELAYSERVER_OK);
    EXPECT_EQ(ParseServerError(withErrno(0)), RELAYSERVER_OK);
    EXPECT_EQ(ParseServerError(withErrno(6)), RELAYSERVER_ERR_ALIAS_TAKEN);
    EXPECT_EQ(ParseServerError(withErrno(3.0)), RELAYSERVER_ERR_AUTH);
    EXPECT_EQ(static_cast<int>(ParseServerError(withErrno(99))), 99);
    for (const Json::Value& bad :
         {withErrno("3"), withErrno(true), withErrno(Json::Value()), withErrno(2.5),
          withErrno(1e12), Json::Value(), Json::Value(Json::arrayValue), Json::Value("errno")}) {
        EXPECT_EQ(ParseServerError(bad), RELAYSERVER_ERR_MALFORMED) << bad.toStyledString();
    }

    // The translation of the errors whose meaning the daemon acts on, and of
    // unknown ones.
    const std::pair<RELAYSERVER_ERR, RELAYD_RET> table[] = {
        {RELAYSERVER_OK, RELAYD_OK},
        {RELAYSERVER_ERR_AUTH, RELAYD_ERR_AUTH},
        {RELAYSERVER_ERR_BUSY, RELAYD_ERR_SERVER_BUSY},
        {RELAYSERVER_ERR_APIKEY_EXPIRED, RELAYD_ERR_APIKEY_EXPIRED},
        {RELAYSERVER_ERR_ALIAS_TAKEN, RELAYD_ERR_UNKNOWN},
        {RELAYSERVER_ERR_NOT_REGISTERED, RELAYD_ERR_NOT_REGISTERED},
        {RELAYSERVER_ERR_UNSUPPORTED_VERSION, RELAYD_ERR_UNSUPPORTED},
        {RELAYSERVER_ERR_VIOLATION, RELAYD_ERR_VIOLATION},
        {RELAYSERVER_ERR_MALFORMED, RELAYD_ERR_BAD_RESPONSE},
        {RELAYSERVER_ERR(99), RELAYD_ERR_UNKNOWN},
        {RELAYSERVER_ERR(-7), RELAYD_ERR_UNKNOWN}};
    for (const auto& [error, expected] : table) EXPECT_EQ(RespErrMap(error), expected) << error;
}

}  // namespace
