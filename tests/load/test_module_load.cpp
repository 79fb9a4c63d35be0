#include <dlfcn.h>
#include <gtest/gtest.h>
#include <orvo/webapi.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

struct DlCloser {
    void operator()(void* handle) const { dlclose(handle); }
};
using Module = std::unique_ptr<void, DlCloser>;

Module LoadModule() {
    Module module(dlopen(FARLINK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL));
    EXPECT_NE(module, nullptr) << dlerror();
    return module;
}

struct ExpectedRow {
    const char* api;
    std::uint64_t version;
    const char* method;
    const char* handlerSymbol;
};

std::string HandlerSymbol(const char* name) {
    // Handlers have C++ linkage: void Name(ORVO::APIRequest*, ORVO::APIResponse*).
    return "_Z" + std::to_string(std::strlen(name)) + name +
           "PN4ORVO10APIRequestEPNS_11APIResponseE";
}

const std::vector<ExpectedRow> kExpectedRows = {
    {"ORVO.Core.Farlink", 1, "status", "Status_v1"},
    {"ORVO.Core.Farlink", 1, "set", "Set_v1"},
    {"ORVO.Core.Farlink.RegisterSite", 1, "get", "GetRegisterSite_v1"},
    {"ORVO.Core.Farlink", 2, "set", "Set_v2"},
};

}  // namespace

TEST(ModuleLoad, TableHasTheRowsInOrderAsRawWords) {
    Module module = LoadModule();
    ASSERT_NE(module, nullptr);
    auto getTable = reinterpret_cast<ORVO::GetAPITableFn>(dlsym(module.get(), "GetAPITable"));
    ASSERT_NE(getTable, nullptr);
    const void* table = dlsym(module.get(), "grgTable");
    ASSERT_EQ(static_cast<const void*>(getTable()), table);

    const auto* words = static_cast<const std::uint64_t*>(table);
    for (std::size_t row = 0; row < kExpectedRows.size(); ++row) {
        const ExpectedRow& expected = kExpectedRows[row];
        const std::uint64_t* slot = words + 4 * row;
        SCOPED_TRACE(expected.handlerSymbol);
        EXPECT_STREQ(reinterpret_cast<const char*>(slot[0]), expected.api);
        EXPECT_EQ(slot[1], expected.version) << "upper half of the version slot must be zero";
        EXPECT_STREQ(reinterpret_cast<const char*>(slot[2]), expected.method);
        void* handler = dlsym(module.get(), HandlerSymbol(expected.handlerSymbol).c_str());
        EXPECT_NE(handler, nullptr) << "handler not exported";
        EXPECT_EQ(reinterpret_cast<void*>(slot[3]), handler);
    }
    const std::uint64_t* terminator = words + 4 * kExpectedRows.size();
    for (int slot = 0; slot < 4; ++slot) EXPECT_EQ(terminator[slot], 0u);
}

TEST(ModuleLoad, ErrorMapsAreExportedPairByPair) {
    Module module = LoadModule();
    ASSERT_NE(module, nullptr);
    const std::int32_t relay[] = {0,    2908, 8,    2905, 5,    2905, 6,    2902, 7,
                                  2902, 10,   2903, 12,   2903, 13,   2903, 14,   2903,
                                  30,   2910, 9,    2900, 15,   2909, 11,   2900, 1,
                                  2900, 2,    2900, 3,    2900, 4,    2900, 255,  2900};
    const std::int32_t alias[] = {1,  2908, 5,  2901, 6,  2902, 7,  2902, 3,  2904,
                                  12, 2906, 8,  2905, 4,  2903, 9,  2903, 10, 2903,
                                  2,  2900, 11, 2900, 14, 2909, 30, 2910, 255, 2900};
    static_assert(sizeof(relay) == 144 && sizeof(alias) == 120, "map sizes");
    const void* relayMap = dlsym(module.get(), "grgRelayErrorCodeMap");
    const void* aliasMap = dlsym(module.get(), "grgAliasErrorCodeMap");
    ASSERT_NE(relayMap, nullptr);
    ASSERT_NE(aliasMap, nullptr);
    EXPECT_EQ(std::memcmp(relayMap, relay, sizeof(relay)), 0);
    EXPECT_EQ(std::memcmp(aliasMap, alias, sizeof(alias)), 0);
}

TEST(ModuleLoad, OnlyTheEntryPointsAreExported) {
    Module module = LoadModule();
    ASSERT_NE(module, nullptr);
    for (const char* hidden : {"_Z17MapRelayErrorCodeN4ORVO5Relay10RELAYD_RETE", "_Z8Finish",
                               "_Z22OrvorelaydServiceStartv", "_Z20EnterCriticalSectionPKci"}) {
        EXPECT_EQ(dlsym(module.get(), hidden), nullptr) << hidden << " leaked out";
    }
}
