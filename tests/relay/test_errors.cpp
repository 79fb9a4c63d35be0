// Decoding of the control server's error numbers and the result texts.
#include <gtest/gtest.h>
#include <orvo/relayd.h>

#include <string>

using namespace ORVO::Relay;

namespace {

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

TEST(ResultTexts, UnknownResultsReadAsUnknown) {
    EXPECT_STREQ(GetErrorStr(RELAYD_RET(16)), "unknown error");
    EXPECT_STRNE(GetErrorStr(RELAYD_ERR_TIMEOUT), GetErrorStr(RELAYD_ERR_TLS));
    AliasRequest request;
    std::string text = "stale";
    EXPECT_FALSE(request.ResponseToString(ALIAS_RET(13), text));
    EXPECT_EQ(text, "unknown error");
    EXPECT_TRUE(request.ResponseToString(ALIAS_ERR_TAKEN, text));
    EXPECT_NE(text, "unknown error");
}

}  // namespace
