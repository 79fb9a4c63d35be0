// The module's rules that need no root, no files and no box: how parameters
// convert, what an alias, an account and a password must look like, the MD5
// text of a password and the alias request's body. Handlers are called only
// with requests they must refuse before touching anything.
#include <gtest/gtest.h>
#include <orvo/webapi.h>

#include <cstring>
#include <string>
#include <vector>

#include "api_table.h"
#include "control_server.h"
#include "handler_common.h"
#include "posix_pattern.h"
#include "server_alias.h"
#include "test_json.h"

namespace {

using farlink_test::ParseJson;

ORVO::APIRequest RequestWith(const std::string& params) {
    return ORVO::APIRequest("ORVO.Core.Farlink", 1, "test", ParseJson(params));
}

TEST(ParameterRules, ValuesConvertAsTheJsonLibraryDoesAndTheRestIsRefused) {
    const std::pair<const char*, bool> booleans[] = {
        {R"({"p": true})", true},
        {R"({"p": null})", false},
        {R"({"p": 0})", false},
        {R"({"p": 2.5})", true},
    };
    for (const auto& [params, expected] : booleans) {
        bool value = !expected;
        EXPECT_TRUE(ReadBoolParam(RequestWith(params), "p", value)) << params;
        EXPECT_EQ(value, expected) << params;
    }
    const std::pair<const char*, const char*> strings[] = {
        {R"({"p": "x"})", "x"},
        {R"({"p": true})", "true"},
        {R"({"p": 12})", "12"},
        {R"({"p": null})", ""},
    };
    for (const auto& [params, expected] : strings) {
        std::string value = "unchanged";
        EXPECT_TRUE(ReadStringParam(RequestWith(params), "p", value)) << params;
        EXPECT_EQ(value, expected) << params;
    }
    for (const char* params : {R"({"p": "true"})", R"({"p": {}})", R"({"p": []})", "{}"}) {
        bool flag = false;
        EXPECT_FALSE(ReadBoolParam(RequestWith(params), "p", flag)) << params;
    }
    for (const char* params : {R"({"p": {}})", R"({"p": [1]})", "{}"}) {
        std::string text;
        EXPECT_FALSE(ReadStringParam(RequestWith(params), "p", text)) << params;
    }
}

TEST(AliasRules, AliasAccountAndPasswordShapesAreCheckedBeforeAnythingElse) {
    for (const char* alias : {"box", "My-box2", "a"})
        EXPECT_TRUE(IsValidServerAlias(alias)) << alias;
    for (const std::string& alias :
         std::vector<std::string>{"", "2box", "-box", "a_b", "a.b", "a b", std::string("a\0b", 3)})
        EXPECT_FALSE(IsValidServerAlias(alias)) << alias;

    // The pattern object judges the whole text, NUL and all.
    EXPECT_TRUE(PosixPattern("^ab$").MatchesText("ab"));
    EXPECT_FALSE(PosixPattern("^a$").MatchesText(std::string("a\0b", 3)));

    const std::string valid =
        R"("kivo_account":"alice@example.test","server_alias":"box","kivo_password":)";
    const std::string refused[] = {
        R"({"kivo_account":"alice@example.c","server_alias":"box","kivo_password":"secret1"})",
        R"({"kivo_account":"alice","server_alias":"box","kivo_password":"secret1"})",
        "{" + valid + R"("12345"})",
        "{" + valid + "\"" + std::string(129, 'p') + "\"}",
        "{" + valid + R"("12345\u0000678"})",  // counted up to the NUL
        "{" + valid + R"("secret1","force":"yes"})",
    };
    for (const std::string& params : refused) {
        ORVO::APIRequest request("ORVO.Core.Farlink", 1, "set_server_alias", ParseJson(params));
        ORVO::APIResponse response;
        SetServerAlias_v1(&request, &response);
        EXPECT_EQ(response.GetErrorCode(), kApiErrInvalidParam) << params;
        EXPECT_FALSE(response.IsSuccess()) << params;
    }
}

TEST(AliasRules, PasswordLeavesOnlyAsItsMd5TextAndForceIsText) {
    char digest[65];
    ASSERT_EQ(GetMd5String("secret1", digest, 64), 0);
    EXPECT_STREQ(digest, "e52d98c459819a11775936d8dfbb7929");
    EXPECT_EQ(GetMd5String("secret1", digest, 63), -1) << "too small a buffer";
    EXPECT_EQ(GetMd5String(nullptr, digest, 64), -1);

    ORVO::Relay::RelaydConf conf("/nonexistent/orvorelayd.conf");
    EXPECT_EQ(AliasRequestBody(conf, true)["force"], "true");
    EXPECT_EQ(AliasRequestBody(conf, false)["force"], "false");
}

}  // namespace
