// The host settings file (key="value" lines).
#pragma once

#include <string>

namespace orvorelayd {

// Sets `key` to `value` in the file at `path`, replacing the key's line or
// appending one and keeping every other line. The file is rewritten in place
// (it may be a bind-mounted single file, which a rename cannot replace).
bool SetHostInfoKey(const std::string& path, const std::string& key, const std::string& value);

}  // namespace orvorelayd
