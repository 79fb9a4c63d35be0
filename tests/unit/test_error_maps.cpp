#include <gtest/gtest.h>

#include "api_table.h"

using ORVO::Relay::ALIAS_RET;
using ORVO::Relay::RELAYD_RET;

TEST(ErrorMaps, SuccessValuesDifferBetweenTheTwoEnumerations) {
    EXPECT_EQ(MapRelayErrorCode(RELAYD_RET(0)), 2908);
    EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(1)), 2908);
    EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(0)), 2900);
}

TEST(ErrorMaps, EveryListedCodeTranslates) {
    const std::pair<int, int> relay[] = {{8, 2905},  {5, 2905},  {6, 2902},  {7, 2902},
                                         {10, 2903}, {12, 2903}, {13, 2903}, {14, 2903},
                                         {30, 2910}, {9, 2900},  {15, 2909}, {11, 2900},
                                         {1, 2900},  {2, 2900},  {3, 2900},  {4, 2900}};
    for (auto [from, to] : relay) EXPECT_EQ(MapRelayErrorCode(RELAYD_RET(from)), to) << from;
    const std::pair<int, int> alias[] = {{5, 2901},  {6, 2902},  {7, 2902},  {3, 2904},
                                         {12, 2906}, {8, 2905},  {4, 2903},  {9, 2903},
                                         {10, 2903}, {2, 2900},  {11, 2900}, {14, 2909},
                                         {30, 2910}};
    for (auto [from, to] : alias) EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(from)), to) << from;
}

TEST(ErrorMaps, TerminatorAndUnlistedValuesGiveTheGeneralFailure) {
    for (int code : {255, 16, -1, -255, 256, 0x7fffffff}) {
        EXPECT_EQ(MapRelayErrorCode(RELAYD_RET(code)), 2900) << code;
        EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(code)), 2900) << code;
    }
    EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(13)), 2900);
}
