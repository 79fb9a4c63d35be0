// JSON helpers shared by the tests.
#pragma once

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>  // Json::Value in failure messages

#include <ostream>
#include <sstream>
#include <string>

#include "test_files.h"

namespace Json {
// Readable values in test failure messages.
inline void PrintTo(const Value& value, std::ostream* out) { *out << value.toStyledString(); }
}  // namespace Json

namespace farlink_test {

// The text's value; null when it is not JSON.
inline Json::Value ParseJson(const std::string& text) {
    std::istringstream in(text);
    Json::Value value;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) return {};
    return value;
}
inline Json::Value ReadJson(const std::string& path) { return ParseJson(ReadFile(path)); }

}  // namespace farlink_test
