// Writing files so that neither a reader nor a crash ever meets half of one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace farlink {

// Writes all of `data`, resuming after interruptions; false on an error.
bool WriteAll(int fd, const char* data, std::size_t size);

// The directory part of `path` ("." when it has none).
std::string DirectoryOf(const std::string& path);

// Writes `content` to a temporary file beside `path`, flushes it to disk,
// gives it `mode`, renames it over `path` and flushes the directory. On any
// failure `path` keeps its old content and no temporary file is left. A
// writer killed at any point leaves `path` whole: the file is unnamed while
// it is written, and what a writer killed between naming and renaming left
// ("PATH.tmp.PID.N", PID no longer running) the next write to `path` removes.
bool WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode);

}  // namespace farlink
