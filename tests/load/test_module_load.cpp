#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <orvo/webapi.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <tuple>

namespace {

// The module as the host loads it.
class ModuleLoad : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(module_, nullptr) << dlerror(); }
    void* Symbol(const std::string& name) const { return dlsym(module_.get(), name.c_str()); }

    std::unique_ptr<void, int (*)(void*)> module_{
        dlopen(FARLINK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL), dlclose};
};

// api, version, method, handler
const std::tuple<const char*, std::uint64_t, const char*, const char*> kRows[] = {
    {"ORVO.Core.Farlink", 1, "status", "Status_v1"},
    {"ORVO.Core.Farlink", 1, "get", "Get_v1"},
    {"ORVO.Core.Farlink", 1, "set", "Set_v1"},
    {"ORVO.Core.Farlink", 1, "set_server_alias", "SetServerAlias_v1"},
    {"ORVO.Core.Farlink.Permission", 1, "get", "GetPermission_v1"},
    {"ORVO.Core.Farlink.Permission", 1, "set", "SetPermission_v1"},
    {"ORVO.Core.Farlink.Upnp", 1, "set", "SetUpnp_v1"},
    {"ORVO.Core.Farlink.Upnp", 1, "get", "GetUpnp_v1"},
    {"ORVO.Core.Farlink.SNI", 1, "set", "SetSNI_v1"},
    {"ORVO.Core.Farlink.Hostname", 1, "get_ip", "GetIP_v1"},
    {"ORVO.Core.Farlink.RegisterSite", 1, "get", "GetRegisterSite_v1"},
    {"ORVO.Core.Farlink", 2, "get", "Get_v2"},
    {"ORVO.Core.Farlink", 2, "set", "Set_v2"},
    {"ORVO.Core.Farlink", 2, "set_server_alias", "SetServerAlias_v2"},
    {"ORVO.Core.Farlink", 3, "get_misc_config", "GetMiscConfig_v3"},
    {"ORVO.Core.Farlink", 3, "set_misc_config", "SetMiscConfig_v3"},
    {"ORVO.Core.Farlink", 3, "check_availability", "CheckAvailability_v3"},
};

// Handlers have C++ linkage: void Name(ORVO::APIRequest*, ORVO::APIResponse*).
std::string HandlerSymbol(const std::string& name) {
    return "_Z" + std::to_string(name.size()) + name + "PN4ORVO10APIRequestEPNS_11APIResponseE";
}

TEST_F(ModuleLoad, TableHasTheRowsInOrderAsRawWords) {
    auto getTable = reinterpret_cast<ORVO::GetAPITableFn>(Symbol("GetAPITable"));
    ASSERT_NE(getTable, nullptr);
    const void* table = Symbol("grgTable");
    ASSERT_EQ(static_cast<const void*>(getTable()), table);

    const auto* slot = static_cast<const std::uint64_t*>(table);
    for (const auto& [api, version, method, handler] : kRows) {
        SCOPED_TRACE(handler);
        EXPECT_STREQ(reinterpret_cast<const char*>(slot[0]), api);
        EXPECT_EQ(slot[1], version) << "upper half of the version slot must be zero";
        EXPECT_STREQ(reinterpret_cast<const char*>(slot[2]), method);
        EXPECT_NE(Symbol(HandlerSymbol(handler)), nullptr) << "handler not exported";
        EXPECT_EQ(reinterpret_cast<void*>(slot[3]), Symbol(HandlerSymbol(handler)));
        slot += 4;
    }
    for (int word = 0; word < 4; ++word) EXPECT_EQ(slot[word], 0u) << "terminator";
}

TEST_F(ModuleLoad, ErrorMapsAreExportedPairByPair) {
    const std::int32_t relay[] = {0,  2908, 8,  2905, 5,  2905, 6,  2902, 7, 2902, 10,  2903,
                                  12, 2903, 13, 2903, 14, 2903, 30, 2910, 9, 2900, 15,  2909,
                                  11, 2900, 1,  2900, 2,  2900, 3,  2900, 4, 2900, 255, 2900};
    const std::int32_t alias[] = {1,  2908, 5,  2901, 6,  2902, 7,  2902, 3,   2904,
                                  12, 2906, 8,  2905, 4,  2903, 9,  2903, 10,  2903,
                                  2,  2900, 11, 2900, 14, 2909, 30, 2910, 255, 2900};
    static_assert(sizeof(relay) == 144 && sizeof(alias) == 120, "map sizes");
    const void* relayMap = Symbol("grgRelayErrorCodeMap");
    const void* aliasMap = Symbol("grgAliasErrorCodeMap");
    ASSERT_NE(relayMap, nullptr);
    ASSERT_NE(aliasMap, nullptr);
    EXPECT_EQ(std::memcmp(relayMap, relay, sizeof(relay)), 0);
    EXPECT_EQ(std::memcmp(aliasMap, alias, sizeof(alias)), 0);
}

// The names the module's file defines in its dynamic symbol table.
std::set<std::string> ExportedNames(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(file)), {});
    std::set<std::string> names;
    if (image.size() < sizeof(Elf64_Ehdr)) return names;
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(image.data());
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(image.data() + header->e_shoff);
    for (int i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM) continue;
        const char* strings = image.data() + sections[sections[i].sh_link].sh_offset;
        const auto* symbols =
            reinterpret_cast<const Elf64_Sym*>(image.data() + sections[i].sh_offset);
        for (std::size_t n = 0; n < sections[i].sh_size / sizeof(Elf64_Sym); ++n) {
            const int binding = ELF64_ST_BIND(symbols[n].st_info);
            if (symbols[n].st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK))
                names.insert(strings + symbols[n].st_name);
        }
    }
    return names;
}

// Exactly what the export map allows: the entry point, the three tables and
// one handler per row.
TEST_F(ModuleLoad, ExportsExactlyTheEntryPointTablesAndHandlers) {
    std::set<std::string> expected = {"GetAPITable", "grgTable", "grgRelayErrorCodeMap",
                                      "grgAliasErrorCodeMap"};
    for (const auto& row : kRows) expected.insert(HandlerSymbol(std::get<3>(row)));
    EXPECT_EQ(ExportedNames(FARLINK_MODULE_PATH), expected);
}

}  // namespace
