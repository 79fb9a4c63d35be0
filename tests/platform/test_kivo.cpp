// The account library and the account tool against the account state file.
#include <gtest/gtest.h>
#include <orvo/core.h>
#include <orvo/kivo.h>
#include <orvo/paths.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <thread>

#include "test_helpers.h"
#include "test_json.h"

namespace {

using platform_test::ReadFile;

class KivoTest : public platform_test::PrivateRootTest {
protected:
    static void WriteState(const std::string& json) {
        platform_test::WriteFile(ORVO::Paths::kKivoAccount, json);
    }
    static int RunTool(const char* arg1, const char* arg2 = nullptr, const char* arg3 = nullptr) {
        return OLIBCExec(ORVOKIVO_TOOL, arg1, arg2, arg3, nullptr);
    }
    // Zero-filled like the module's record, so untouched bytes stay visible.
    std::unique_ptr<_tag_kivo_INFO_> info_ = std::make_unique<_tag_kivo_INFO_>();
};

TEST_F(KivoTest, AccountGetFillsTheRecordOrFailsWithItsCode) {
    const std::pair<const char*, int> failures[] = {
        {nullptr, KIVO_ERR_NOT_BOUND},  // no file
        {"{ broken", KIVO_ERR_STATE},
        {"[]", KIVO_ERR_STATE},
        {R"({"bound": false, "get_error": 1})", KIVO_ERR_INTERNAL},
    };
    for (const auto& [state, code] : failures) {
        if (state != nullptr) WriteState(state);
        EXPECT_EQ(ORVOKIVOAccountGet(info_.get()), -1) << (state ? state : "no file");
        EXPECT_EQ(ORVOKIVOErrGet(), code) << (state ? state : "no file");
        EXPECT_EQ(info_->account[0], '\0') << "a failed call writes nothing";
    }
    // The last error belongs to the calling thread.
    WriteState("{ broken");
    EXPECT_EQ(ORVOKIVOAccountGet(info_.get()), -1);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_STATE);
    std::thread([] {
        EXPECT_EQ(ORVOKIVOAccountGet(nullptr), -1);
        EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_INTERNAL);
    }).join();
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_STATE);

    WriteState(R"({"account": ")" + std::string(9000, 'a') + R"(", "kivo_id": 12})");
    info_ = std::make_unique<_tag_kivo_INFO_>();
    ASSERT_EQ(ORVOKIVOAccountGet(info_.get()), 0);
    EXPECT_EQ(std::strlen(info_->account), sizeof info_->account - 1) << "truncated in its slot";
    EXPECT_EQ(info_->kivoId[0], '\0') << "a number is not an identifier";
}

TEST_F(KivoTest, FailedQueryLeavesTheDetailsAndOnlyTheBooleanTrueValidates) {
    WriteState(R"({"account": "alice", "query_error": 4, "realname_validated": "true"})");
    Json::Value untouched("before");
    EXPECT_EQ(ORVOKIVOAccountQueryInfo(untouched, true, true), -1);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_NETWORK);
    EXPECT_EQ(untouched, "before");
    EXPECT_FALSE(orvokivo::User().GetIsRealnameValidationPass());
}

TEST_F(KivoTest, ToolQueryClearsRefreshKeepsEverythingElseAndRefusesUsageErrors) {
    EXPECT_EQ(RunTool("--query_account"), 0) << "nothing bound, nothing to refresh";
    const std::string state = R"({"account": "alice", "refresh": 1, "get_error": 4})";
    WriteState(state);
    ::chmod(ORVO::Paths::kKivoAccount, 0600);
    EXPECT_EQ(RunTool("--query_account", "--cache"), 0);
    EXPECT_EQ(ReadFile(ORVO::Paths::kKivoAccount), state) << "the cache leaves the flag";
    EXPECT_EQ(RunTool("--query_account"), 0);
    EXPECT_EQ(farlink_test::ReadJson(ORVO::Paths::kKivoAccount),
              farlink_test::ParseJson(R"({"account": "alice", "refresh": 0, "get_error": 4})"));
    struct stat st;
    ASSERT_EQ(::stat(ORVO::Paths::kKivoAccount, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u) << "the secret must not become readable";

    WriteState("{ broken");
    EXPECT_EQ(RunTool("--query_account"), 1);
    EXPECT_EQ(ReadFile(ORVO::Paths::kKivoAccount), "{ broken");
    EXPECT_EQ(RunTool(nullptr), 2);
    EXPECT_EQ(RunTool("--cache"), 2);
    EXPECT_EQ(RunTool("--cache", "--query_account"), 2);
    EXPECT_EQ(RunTool("--query_account", "--other"), 2);
    EXPECT_EQ(RunTool("--query_account", "--cache", "x"), 2);
    EXPECT_EQ(platform_test::ReadLines(ORVO::Paths::kKivoQueryLog).size(), 4u)
        << "every run but a usage error is recorded";
}

}  // namespace
