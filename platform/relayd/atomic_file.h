// Durable, all-or-nothing replacement of a file's content. Every file the
// relay library and daemon write goes through here, so that a reader (or a
// crash) never meets a half-written file.
#pragma once

#include <sys/types.h>

#include <string>

namespace ORVO {
namespace Relay {
namespace internal {

// Writes `content` to a temporary file beside `path`, flushes it to disk,
// gives it `mode`, renames it over `path` and flushes the directory. On any
// failure `path` keeps its old content and no temporary file is left.
bool WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode);

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
