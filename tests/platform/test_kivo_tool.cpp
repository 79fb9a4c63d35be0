#include <gtest/gtest.h>
#include <json/reader.h>
#include <orvo/core.h>
#include <orvo/paths.h>
#include <sys/stat.h>

#include <sstream>

#include "test_helpers.h"

namespace {

using platform_test::ReadFile;
using platform_test::ReadLines;
using platform_test::WriteFile;

class KivoToolTest : public platform_test::PrivateRootTest {
protected:
    int Run(const char* arg1 = nullptr, const char* arg2 = nullptr, const char* arg3 = nullptr) {
        return OLIBCExec(ORVOKIVO_TOOL, arg1, arg2, arg3, nullptr);
    }
    Json::Value State() {
        Json::Value state;
        std::istringstream in(ReadFile(ORVO::Paths::kKivoAccount));
        Json::CharReaderBuilder builder;
        EXPECT_TRUE(Json::parseFromStream(builder, in, &state, nullptr));
        return state;
    }
};

TEST_F(KivoToolTest, QueryClearsRefreshAndKeepsEverythingElse) {
    WriteFile(ORVO::Paths::kKivoAccount,
              R"({"account": "alice", "refresh": 1, "get_error": 4, "auth_key": "secret"})");
    ::chmod(ORVO::Paths::kKivoAccount, 0600);

    EXPECT_EQ(Run("--query_account", "--cache"), 0);
    EXPECT_EQ(State()["refresh"], 1) << "the cache leaves the flag";

    EXPECT_EQ(Run("--query_account"), 0);
    Json::Value state = State();
    EXPECT_EQ(state["refresh"], 0);
    EXPECT_EQ(state["account"], "alice");
    EXPECT_EQ(state["get_error"], 4);
    struct stat st;
    ASSERT_EQ(::stat(ORVO::Paths::kKivoAccount, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u) << "the secret must not become readable";

    EXPECT_EQ(ReadLines(ORVO::Paths::kKivoQueryLog),
              (std::vector<std::string>{"--query_account --cache", "--query_account"}));
}

TEST_F(KivoToolTest, NoAccountAndBrokenState) {
    EXPECT_EQ(Run("--query_account"), 0) << "nothing bound, nothing to refresh";
    WriteFile(ORVO::Paths::kKivoAccount, "{ broken");
    EXPECT_EQ(Run("--query_account"), 1);
    EXPECT_EQ(ReadFile(ORVO::Paths::kKivoAccount), "{ broken");
    EXPECT_EQ(ReadLines(ORVO::Paths::kKivoQueryLog).size(), 2u) << "every run is recorded";
}

TEST_F(KivoToolTest, UsageErrors) {
    for (auto args : {std::vector<const char*>{},
                      {"--cache"},
                      {"--cache", "--query_account"},
                      {"--query_account", "--other"},
                      {"--query_account", "--cache", "x"}}) {
        args.resize(3, nullptr);
        EXPECT_EQ(Run(args[0], args[1], args[2]), 2);
    }
    EXPECT_TRUE(ReadLines(ORVO::Paths::kKivoQueryLog).empty());
}

}  // namespace
