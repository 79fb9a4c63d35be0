// Lookups in the module's error maps; the maps themselves are checked byte
// for byte by the load tests.
#include <gtest/gtest.h>

#include "api_table.h"

using ORVO::Relay::ALIAS_RET;
using ORVO::Relay::RELAYD_RET;

TEST(ErrorMaps, ListedUnlistedAndTerminatorValues) {
    // The two success values differ: 0 for the daemon, 1 for aliases.
    EXPECT_EQ(MapRelayErrorCode(RELAYD_RET(0)), 2908);
    EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(1)), 2908);
    EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(0)), 2900);
    // First, middle and last pairs of each map.
    for (auto [from, to] : {std::pair{8, 2905}, {15, 2909}, {4, 2900}})
        EXPECT_EQ(MapRelayErrorCode(RELAYD_RET(from)), to) << from;
    for (auto [from, to] : {std::pair{5, 2901}, {12, 2906}, {30, 2910}})
        EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(from)), to) << from;
    for (int code : {255, 16, -1, -255, 256, 0x7fffffff}) {
        EXPECT_EQ(MapRelayErrorCode(RELAYD_RET(code)), 2900) << code;
        EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(code)), 2900) << code;
    }
    EXPECT_EQ(MapAliasErrorCode(ALIAS_RET(13)), 2900) << "13 is listed for the daemon only";
}
