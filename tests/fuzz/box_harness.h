// The module's handlers called directly inside the emulated box, as the
// host's workers call them: effective ids the service user's, real and
// saved ids root. Between inputs the box's state goes back to how the box
// started, so that each input is a reproducer on its own.
#pragma once

#include <json/value.h>
#include <orvo/webapi.h>

#include <map>
#include <string>

namespace farlink_fuzz {

// Stops the program unless it runs inside the box; reads the service user.
void EnterBox();

// The table row serving (api, version, method); stops the program if none.
const ORVO::APITableEntry& Row(const char* api, int version, const char* method);

struct HostCall {
    ORVO::APIResponse response;
};

// Runs the row's handler with `params` as the host would, checking that it
// answered exactly once, left the credentials as it found them and left no
// temporary file among the relay's configuration files.
HostCall CallAsHost(const ORVO::APITableEntry& row, const Json::Value& params);

// Path -> content of the state a handler may change (the relay's
// configuration directory, the box's information file, the account).
using BoxState = std::map<std::string, std::string>;
BoxState ReadBoxState();
// The state the box started with.
const BoxState& InitialBoxState();
// Stops the relay daemon if it runs and puts every changed file back.
void RestoreBox();

}  // namespace farlink_fuzz
