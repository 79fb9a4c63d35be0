#include <gtest/gtest.h>
#include <orvo/webapi.h>

namespace {

TEST(APIRequestTest, ParametersDefaultsAndNonObjects) {
    Json::Value params(Json::objectValue);
    params["alias"] = "box";
    params["flag"] = Json::Value();
    ORVO::APIRequest request("ORVO.Core.Farlink", 2, "set", params);
    EXPECT_TRUE(request.GetParam("flag", "fallback").isNull()) << "a present null is not absent";
    EXPECT_EQ(request.GetParam("missing", 5), 5);
    EXPECT_EQ(request.GetParam("", Json::Value()), params);

    for (const Json::Value& odd :
         {Json::Value("text"), Json::Value(Json::arrayValue), Json::Value()}) {
        ORVO::APIRequest oddRequest("ORVO.Core.Farlink", 1, "get", odd);
        EXPECT_FALSE(oddRequest.HasParam("alias"));
        EXPECT_EQ(oddRequest.GetParam("", Json::Value()), Json::Value(Json::objectValue));
    }
}

TEST(APIResponseTest, FirstAnswerStandsAndAnswersAreCounted) {
    ORVO::APIResponse response;
    EXPECT_FALSE(response.IsAnswered());
    response.SetError(2901, Json::Value());
    response.SetSuccess("late");
    response.SetError(2900, "later");
    EXPECT_EQ(response.AnswerCount(), 3);
    EXPECT_FALSE(response.IsSuccess());
    EXPECT_EQ(response.GetErrorCode(), 2901);
    EXPECT_TRUE(response.GetData().isNull());
}

}  // namespace
