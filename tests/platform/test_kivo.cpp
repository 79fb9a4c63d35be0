// The account library and the account tool against the account state file.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <orvo/core.h>
#include <orvo/kivo.h>
#include <orvo/paths.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <thread>

#include "test_helpers.h"

namespace {

using platform_test::ReadFile;
using platform_test::ReadLines;

class KivoTest : public platform_test::PrivateRootTest {
protected:
    static void WriteState(const std::string& json) {
        platform_test::WriteFile(ORVO::Paths::kKivoAccount, json);
    }
    // Zero-filled like the module's record, so untouched bytes stay visible.
    static std::unique_ptr<_tag_kivo_INFO_> NewRecord() {
        return std::make_unique<_tag_kivo_INFO_>();
    }
    static int RunTool(std::vector<const char*> args) {
        args.resize(3, nullptr);
        return OLIBCExec(ORVOKIVO_TOOL, args[0], args[1], args[2], nullptr);
    }
    static Json::Value Parse(const std::string& text) {
        Json::Value value;
        std::istringstream in(text);
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr));
        return value;
    }
    static Json::Value State() { return Parse(ReadFile(ORVO::Paths::kKivoAccount)); }
};

TEST_F(KivoTest, AccountGetFillsTheRecord) {
    WriteState(R"({"account": "alice", "kivo_id": "K-1", "auth_key": "secret",
                   "email": "alice@example.test", "refresh": 1})");
    auto info = NewRecord();
    ASSERT_EQ(ORVOKIVOAccountGet(info.get()), 0);
    EXPECT_STREQ(info->account, "alice");
    EXPECT_STREQ(info->kivoId, "K-1");
    EXPECT_STREQ(info->authKey, "secret");
    EXPECT_STREQ(info->email, "alice@example.test");
    EXPECT_EQ(info->refreshFlag, 1);

    WriteState(R"({"account": ")" + std::string(9000, 'a') +
               R"(", "kivo_id": 12, "refresh": "1"})");
    info = NewRecord();
    ASSERT_EQ(ORVOKIVOAccountGet(info.get()), 0);
    EXPECT_EQ(std::strlen(info->account), sizeof info->account - 1) << "truncated in its slot";
    EXPECT_EQ(info->kivoId[0], '\0') << "a number is not an identifier";
    EXPECT_EQ(info->refreshFlag, 0);
}

TEST_F(KivoTest, FailuresReportTheirCodeOnTheCallingThread) {
    auto info = NewRecord();
    const std::pair<const char*, int> cases[] = {
        {nullptr, KIVO_ERR_NOT_BOUND},  // no file
        {R"({"bound": false, "account": "alice"})", KIVO_ERR_NOT_BOUND},
        {"{ broken", KIVO_ERR_STATE},
        {"[]", KIVO_ERR_STATE},
        {R"({"account": "alice", "get_error": 4})", KIVO_ERR_NETWORK},
        {R"({"bound": false, "get_error": 1})", KIVO_ERR_INTERNAL},
    };
    for (const auto& [state, code] : cases) {
        if (state != nullptr) WriteState(state);
        EXPECT_EQ(ORVOKIVOAccountGet(info.get()), -1) << (state ? state : "no file");
        EXPECT_EQ(ORVOKIVOErrGet(), code) << (state ? state : "no file");
        EXPECT_EQ(info->account[0], '\0') << "a failed call writes nothing";
    }
    EXPECT_EQ(ORVOKIVOAccountGet(nullptr), -1);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_INTERNAL);

    int otherThreadCode = -1;
    std::thread([&] {
        WriteState(R"({"get_error": 4})");
        ORVOKIVOAccountGet(info.get());
        otherThreadCode = ORVOKIVOErrGet();
    }).join();
    EXPECT_EQ(otherThreadCode, KIVO_ERR_NETWORK);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_INTERNAL);
}

TEST_F(KivoTest, QueryInfoItsOwnFaultControlAndRealnameValidation) {
    EXPECT_FALSE(orvokivo::User().GetIsRealnameValidationPass()) << "no account";
    WriteState(R"({"account": "", "kivo_id": "K-1", "email": "a@example.test",
                   "auth_key": "secret", "get_error": 4})");
    Json::Value details;
    ASSERT_EQ(ORVOKIVOAccountQueryInfo(details, true, true), 0);
    EXPECT_EQ(details, Parse(R"({"email": "a@example.test", "account": "", "kivo_id": "K-1"})"));

    WriteState(R"({"account": "alice", "query_error": 4, "realname_validated": true})");
    EXPECT_EQ(ORVOKIVOAccountGet(NewRecord().get()), 0);
    Json::Value untouched("before");
    EXPECT_EQ(ORVOKIVOAccountQueryInfo(untouched, true, true), -1);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_NETWORK);
    EXPECT_EQ(untouched, "before");
    EXPECT_TRUE(orvokivo::User().GetIsRealnameValidationPass());
    for (const char* state : {R"({"account": "alice", "realname_validated": "true"})",
                              R"({"bound": false, "realname_validated": true})"}) {
        WriteState(state);
        EXPECT_FALSE(orvokivo::User().GetIsRealnameValidationPass()) << state;
    }
}

TEST_F(KivoTest, ToolQueryClearsRefreshAndKeepsEverythingElse) {
    WriteState(R"({"account": "alice", "refresh": 1, "get_error": 4, "auth_key": "secret"})");
    ::chmod(ORVO::Paths::kKivoAccount, 0600);
    EXPECT_EQ(RunTool({"--query_account", "--cache"}), 0);
    EXPECT_EQ(State()["refresh"], 1) << "the cache leaves the flag";
    EXPECT_EQ(RunTool({"--query_account"}), 0);
    EXPECT_EQ(State()["refresh"], 0);
    EXPECT_EQ(State()["account"], "alice");
    EXPECT_EQ(State()["get_error"], 4);
    struct stat st;
    ASSERT_EQ(::stat(ORVO::Paths::kKivoAccount, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u) << "the secret must not become readable";
    EXPECT_EQ(ReadLines(ORVO::Paths::kKivoQueryLog),
              (std::vector<std::string>{"--query_account --cache", "--query_account"}));
}

TEST_F(KivoTest, ToolWithoutAccountBrokenStateAndUsageErrors) {
    EXPECT_EQ(RunTool({"--query_account"}), 0) << "nothing bound, nothing to refresh";
    WriteState("{ broken");
    EXPECT_EQ(RunTool({"--query_account"}), 1);
    EXPECT_EQ(ReadFile(ORVO::Paths::kKivoAccount), "{ broken");
    using Args = std::vector<const char*>;
    for (const Args& args :
         {Args{}, Args{"--cache"}, Args{"--cache", "--query_account"},
          Args{"--query_account", "--other"}, Args{"--query_account", "--cache", "x"}})
        EXPECT_EQ(RunTool(args), 2);
    EXPECT_EQ(ReadLines(ORVO::Paths::kKivoQueryLog).size(), 2u) << "usage errors are not recorded";
}

}  // namespace
