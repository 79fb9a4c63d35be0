// File helpers shared by the platform libraries and programs (not part of any
// library's public interface; linked statically with hidden visibility).
#pragma once

#include <farlink/unique_fd.h>
#include <json/value.h>

#include <string>

namespace orvo {
namespace platform {

using UniqueFd = farlink::UniqueFd;

enum class JsonReadResult {
    kOk,
    kMissing,     // the file does not exist
    kUnreadable,  // it exists but cannot be read
    kMalformed,   // it was read but is not JSON
};

// Reads the whole file into `out`; 0 on success, otherwise the errno value
// of the failed step (`out` unchanged).
int ReadFile(const std::string& path, std::string& out);

// Parses the whole file; `out` is only changed on kOk.
JsonReadResult ReadJsonFile(const std::string& path, Json::Value& out);

// The member `name` of `object`, or null when `object` is not an object or
// lacks the member (jsoncpp asserts when asked for members of non-objects).
const Json::Value* FindMember(const Json::Value& object, const std::string& name);

// Creates `dir` and any missing parents (mode 0755).
bool MakeDirs(const std::string& dir);

// Appends `line` and a newline with a single O_APPEND write, so that
// concurrent writers never interleave within a line. Creates the parent
// directories as needed.
bool AppendLine(const std::string& path, const std::string& line);

// Replaces `path` with `content` so that readers see the old or the new file,
// never a mix: temporary file in the same directory, fsync, rename. The new
// file keeps the old one's permission bits (0644 when there was none).
bool WriteFileAtomically(const std::string& path, const std::string& content);

// Copies `text` into `buffer` (at most size-1 bytes) and terminates it.
// Nothing is written when `buffer` is null or `size` is not positive.
void CopyTerminated(const std::string& text, char* buffer, std::size_t size);

}  // namespace platform
}  // namespace orvo
