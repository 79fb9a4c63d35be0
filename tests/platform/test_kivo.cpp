#include <gtest/gtest.h>
#include <orvo/kivo.h>
#include <orvo/paths.h>

#include <cstring>
#include <memory>
#include <thread>

#include "test_helpers.h"

namespace {

using platform_test::WriteFile;

class KivoTest : public platform_test::PrivateRootTest {
protected:
    void WriteState(const std::string& json) { WriteFile(ORVO::Paths::kKivoAccount, json); }

    // Zero-filled like the module's record, so untouched bytes stay visible.
    std::unique_ptr<_tag_kivo_INFO_> NewRecord() {
        auto info = std::make_unique<_tag_kivo_INFO_>();
        std::memset(info.get(), 0, sizeof *info);
        return info;
    }
};

TEST_F(KivoTest, AccountGetFillsTheRecordAtItsOffsets) {
    WriteState(R"({"account": "alice", "kivo_id": "K-1", "auth_key": "secret",
                   "email": "alice@example.test", "refresh": 1})");
    auto info = NewRecord();
    ASSERT_EQ(ORVOKIVOAccountGet(info.get()), 0);
    const char* bytes = reinterpret_cast<const char*>(info.get());
    EXPECT_STREQ(bytes, "alice");
    EXPECT_STREQ(bytes + 8192, "K-1");
    EXPECT_STREQ(bytes + 12288, "secret");
    EXPECT_STREQ(info->email, "alice@example.test");
    std::int32_t refresh;
    std::memcpy(&refresh, bytes + 20224, sizeof refresh);
    EXPECT_EQ(refresh, 1);

    WriteState(R"({"account": ")" + std::string(9000, 'a') +
               R"(", "kivo_id": 12, "refresh": "1"})");
    info = NewRecord();
    ASSERT_EQ(ORVOKIVOAccountGet(info.get()), 0);
    EXPECT_EQ(std::strlen(info->account), sizeof info->account - 1) << "truncated in its slot";
    EXPECT_EQ(info->kivoId[0], '\0') << "a number is not an identifier";
    EXPECT_EQ(info->refreshFlag, 0);
}

TEST_F(KivoTest, FailuresReportTheirCode) {
    auto info = NewRecord();
    struct Case {
        const char* state;  // null: no file
        int code;
    } cases[] = {
        {nullptr, KIVO_ERR_NOT_BOUND},
        {R"({"bound": false, "account": "alice"})", KIVO_ERR_NOT_BOUND},
        {"{ broken", KIVO_ERR_STATE},
        {"[]", KIVO_ERR_STATE},
        {R"({"account": "alice", "get_error": 4})", KIVO_ERR_NETWORK},
        {R"({"bound": false, "get_error": 1})", KIVO_ERR_INTERNAL},
    };
    for (const Case& c : cases) {
        if (c.state != nullptr) {
            WriteState(c.state);
        }
        EXPECT_EQ(ORVOKIVOAccountGet(info.get()), -1) << (c.state ? c.state : "no file");
        EXPECT_EQ(ORVOKIVOErrGet(), c.code) << (c.state ? c.state : "no file");
        EXPECT_EQ(info->account[0], '\0') << "a failed call writes nothing";
    }
    EXPECT_EQ(ORVOKIVOAccountGet(nullptr), -1);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_INTERNAL);
}

TEST_F(KivoTest, QueryInfoAndItsOwnFaultControl) {
    WriteState(R"({"account": "", "kivo_id": "K-1", "email": "a@example.test",
                   "auth_key": "secret", "get_error": 4})");
    Json::Value details;
    ASSERT_EQ(ORVOKIVOAccountQueryInfo(details, true, true), 0);
    Json::Value expected(Json::objectValue);
    expected["email"] = "a@example.test";
    expected["account"] = "";
    expected["kivo_id"] = "K-1";
    EXPECT_EQ(details, expected);

    WriteState(R"({"account": "alice", "query_error": 4})");
    auto info = NewRecord();
    EXPECT_EQ(ORVOKIVOAccountGet(info.get()), 0);
    Json::Value untouched("before");
    EXPECT_EQ(ORVOKIVOAccountQueryInfo(untouched, true, true), -1);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_NETWORK);
    EXPECT_EQ(untouched, "before");
}

TEST_F(KivoTest, LastErrorBelongsToTheCallingThread) {
    WriteState(R"({"get_error": 4})");
    auto info = NewRecord();
    ASSERT_EQ(ORVOKIVOAccountGet(info.get()), -1);
    int otherThreadCode = -1;
    std::thread([&] {
        WriteState(R"({"bound": false})");
        ORVOKIVOAccountGet(info.get());
        otherThreadCode = ORVOKIVOErrGet();
    }).join();
    EXPECT_EQ(otherThreadCode, KIVO_ERR_NOT_BOUND);
    EXPECT_EQ(ORVOKIVOErrGet(), KIVO_ERR_NETWORK);
}

TEST_F(KivoTest, RealnameValidation) {
    EXPECT_FALSE(orvokivo::User().GetIsRealnameValidationPass()) << "no account";
    WriteState(R"({"account": "alice", "realname_validated": true})");
    EXPECT_TRUE(orvokivo::User().GetIsRealnameValidationPass());
    WriteState(R"({"account": "alice", "realname_validated": "true"})");
    EXPECT_FALSE(orvokivo::User().GetIsRealnameValidationPass());
    WriteState(R"({"bound": false, "realname_validated": true})");
    EXPECT_FALSE(orvokivo::User().GetIsRealnameValidationPass());
}

}  // namespace
