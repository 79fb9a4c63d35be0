// Reading and writing the relay's JSON files. Missing, unreadable or
// malformed files are ordinary inputs here: they only make a read fail.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace ORVO {
namespace Relay {
namespace internal {

constexpr mode_t kPublicFileMode = 0644;
constexpr mode_t kSecretFileMode = 0600;

// Parses the whole file; false when it cannot be read or is not JSON.
bool ReadJsonFile(const std::string& path, Json::Value& out);

// Indented JSON text with a final newline.
std::string StyledJson(const Json::Value& value);

// Writes `value` as indented JSON, atomically (see WriteFileAtomically).
bool WriteJsonFile(const std::string& path, const Json::Value& value,
                   mode_t mode = kPublicFileMode);

// Read-modify-write of a JSON object file: `update` edits the current
// document, or `fallback` when the file is missing or not a JSON object.
bool UpdateJsonObjectFile(const std::string& path, const Json::Value& fallback,
                          const std::function<void(Json::Value&)>& update);

// Makes a null `out` an empty object; false when it holds something else.
bool PrepareObject(Json::Value& out);

// The string member `key` of `object` into `out`; false (and `out`
// untouched) when `object` is not an object or the member is not a string.
bool TakeString(const Json::Value& object, const char* key, std::string& out);

// Overlay helpers for optional members: true when `key` is absent (`out`
// untouched) or present with the right type (`out` takes it); false when
// present with another type.
bool TakeOptional(const Json::Value& object, const char* key, std::string& out);
bool TakeOptional(const Json::Value& object, const char* key, int& out);

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
