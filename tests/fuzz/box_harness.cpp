#include "box_harness.h"

#include <orvo/paths.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "api_table.h"
#include "fuzz_check.h"

namespace farlink_fuzz {

namespace {

bool HasTemporaryFile() {
    std::error_code ignored;
    for (const auto& entry :
         std::filesystem::directory_iterator(ORVO::Paths::kRelaydConfDir, ignored))
        if (entry.path().filename().string().find(".tmp") != std::string::npos) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (farlink_test::BoxRunDir().empty() || std::getenv("FARLINK_BOX_SERVICE_USER") == nullptr) {
        std::fprintf(stderr,
                     "this harness runs only inside the emulated box: "
                     "box/farlink-box --build DIR -- PROGRAM [INPUT...]\n");
        std::exit(1);
    }
    farlink_test::InitialBoxState();
    return 0;
}

const ORVO::APITableEntry& Row(const char* api, int version, const char* method) {
    for (const ORVO::APITableEntry* row = grgTable; row->api != nullptr; ++row) {
        if (std::strcmp(row->api, api) == 0 &&
            row->version == static_cast<std::uint64_t>(version) &&
            std::strcmp(row->method, method) == 0)
            return *row;
    }
    std::fprintf(stderr, "no row %s/%d/%s in the module's table\n", api, version, method);
    std::exit(1);
}

ORVO::APIResponse CallAsHost(const ORVO::APITableEntry& row, const Json::Value& params) {
    ORVO::APIRequest request(row.api, static_cast<int>(row.version), row.method, params);
    ORVO::APIResponse response;
    {
        farlink_test::ScopedServiceUser user;
        // The host's worker would answer with its own error, but a handler
        // that throws has skipped its own answer and its file repair.
        try {
            row.handler(&request, &response);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "handler threw: %s/%d/%s: %s\n", row.api,
                         static_cast<int>(row.version), row.method, error.what());
            FUZZ_CHECK(!"a handler let an exception out");
        }
        FUZZ_CHECK(geteuid() == user.Uid() && getegid() == user.Gid());
    }
    FUZZ_CHECK(response.AnswerCount() == 1);
    FUZZ_CHECK(!HasTemporaryFile());
    return response;
}

}  // namespace farlink_fuzz
