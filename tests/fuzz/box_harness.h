// The module's handlers called directly inside the emulated box, as the
// host's workers call them: effective ids the service user's, real and
// saved ids root. Between inputs the box's state goes back to how the box
// started (box_state.h), so that each input is a reproducer on its own.
// The harness's LLVMFuzzerInitialize stops the program outside a box.
#pragma once

#include <json/value.h>
#include <orvo/webapi.h>

#include "box_state.h"

namespace farlink_fuzz {

// The table row serving (api, version, method); stops the program if none.
const ORVO::APITableEntry& Row(const char* api, int version, const char* method);

// Runs the row's handler with `params` as the host would, checking that it
// answered exactly once, left the credentials as it found them and left no
// temporary file among the relay's configuration files.
ORVO::APIResponse CallAsHost(const ORVO::APITableEntry& row, const Json::Value& params);

}  // namespace farlink_fuzz
