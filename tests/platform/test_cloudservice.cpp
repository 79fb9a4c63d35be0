#include <gtest/gtest.h>
#include <orvo/cloudservice.h>
#include <orvo/paths.h>

#include <filesystem>

#include "test_helpers.h"

namespace {

using platform_test::ReadLines;

class CloudServiceTest : public platform_test::PrivateRootTest {};

TEST_F(CloudServiceTest, RecordsKnownActionsOnly) {
    std::filesystem::remove_all(ORVO::Paths::kRunDir);  // created on demand
    EXPECT_EQ(ORVOCloudServiceActionHandler(ORVO_CLOUD_ACTION_APIKEY_EXPIRED), 0);
    EXPECT_EQ(ORVOCloudServiceActionHandler(ORVO_CLOUD_ACTION_REFRESH), 0);
    EXPECT_EQ(ORVOCloudServiceActionHandler(0), -1);
    EXPECT_EQ(ORVOCloudServiceActionHandler(-2), -1);
    EXPECT_EQ(ReadLines(ORVO::Paths::kCloudServiceLog),
              (std::vector<std::string>{"action 2", "action 1"}));
}

TEST_F(CloudServiceTest, UnwritableLogIsAFailure) {
    std::filesystem::create_directories(ORVO::Paths::kCloudServiceLog);  // a directory in its way
    EXPECT_EQ(ORVOCloudServiceActionHandler(ORVO_CLOUD_ACTION_APIKEY_EXPIRED), -1);
}

}  // namespace
