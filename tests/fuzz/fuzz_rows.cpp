// Every row of the module's table with generated parameters, inside the box.
// The input's first byte picks the row; the rest is a query string, decoded
// and typed as the host does it (rows.dict holds the names the handlers
// read). A handler that answers 2901 (bad parameters) must change nothing.
#include <api_table.h>
#include <request_params.h>

#include <vector>

#include "box_harness.h"
#include "fuzz_check.h"

namespace {

std::vector<const ORVO::APITableEntry*> Rows() {
    std::vector<const ORVO::APITableEntry*> rows;
    for (const ORVO::APITableEntry* row = grgTable; row->api != nullptr; ++row) rows.push_back(row);
    return rows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<const ORVO::APITableEntry*> rows = Rows();
    if (size == 0) return 0;
    const std::string_view query(reinterpret_cast<const char*>(data + 1), size - 1);
    const auto collected = farlink::host::CollectParams(query, "", "", {});
    if (!collected.params) return 0;  // the host answers that itself

    FUZZ_CHECK(farlink_test::RestoreBox());
    const ORVO::APIResponse response =
        farlink_fuzz::CallAsHost(*rows[data[0] % rows.size()], collected.params->params);
    if (!response.IsSuccess() && response.GetErrorCode() == kApiErrInvalidParam) {
        FUZZ_CHECK(farlink_test::ReadBoxState() == farlink_test::InitialBoxState());
    }
    return 0;
}
