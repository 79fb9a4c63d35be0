// Modules the server must refuse to load; BAD_MODULE picks the fault.
#include <orvo/webapi.h>

#include <string>
#include <vector>

namespace {

void Handler(ORVO::APIRequest*, ORVO::APIResponse* response) { response->SetSuccess({}); }

#define NO_GET_API_TABLE 1
#define NULL_TABLE 2
#define DUPLICATE_ROW 3
#define VERSION_UPPER_BITS 4
#define VERSION_ZERO 5
#define NULL_HANDLER 6
#define TOO_MANY_ROWS 7

#if BAD_MODULE == TOO_MANY_ROWS
// More rows than any sane table, each valid, so only the length is wrong.
const ORVO::APITableEntry* ManyRows() {
    static std::vector<std::string> methods;
    static std::vector<ORVO::APITableEntry> rows;
    for (int i = 0; i < 1100; ++i) methods.push_back("m" + std::to_string(i));
    for (const auto& method : methods) rows.push_back({"Bad.Api", 1, method.c_str(), Handler});
    rows.push_back({nullptr, 0, nullptr, nullptr});
    return rows.data();
}
#else
const ORVO::APITableEntry kRows[] = {
    {"Bad.Api", 1, "get", Handler},
#if BAD_MODULE == DUPLICATE_ROW
    {"Bad.Api", 1, "get", Handler},
#elif BAD_MODULE == VERSION_UPPER_BITS
    {"Bad.Api", (1ull << 32) | 1, "set", Handler},
#elif BAD_MODULE == VERSION_ZERO
    {"Bad.Api", 0, "set", Handler},
#elif BAD_MODULE == NULL_HANDLER
    {"Bad.Api", 1, "set", nullptr},
#endif
    {nullptr, 0, nullptr, nullptr},
};
#endif

}  // namespace

#if BAD_MODULE == NO_GET_API_TABLE
extern "C" const ORVO::APITableEntry* GetApiTable() { return kRows; }
#elif BAD_MODULE == NULL_TABLE
extern "C" const ORVO::APITableEntry* GetAPITable() { return nullptr; }
#elif BAD_MODULE == TOO_MANY_ROWS
extern "C" const ORVO::APITableEntry* GetAPITable() { return ManyRows(); }
#else
extern "C" const ORVO::APITableEntry* GetAPITable() { return kRows; }
#endif
