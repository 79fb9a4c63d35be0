// The handlers that read the relay's JSON configuration files, given fuzzed
// file contents, inside the box. The input's first byte picks the file and a
// handler that reads it; the rest is the file. A file that does not parse
// must be gone from its place afterwards (moved aside) or replaced by one
// that parses (regenerated); no temporary file may be left.
#include <json/reader.h>
#include <orvo/paths.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "box_harness.h"
#include "fuzz_check.h"

namespace {

struct Reader {
    const char* file;
    const char* api;
    int version;
    const char* method;
};

const Reader kReaders[] = {
    {ORVO::Paths::kRelaydConf, "ORVO.Core.Farlink", 1, "status"},
    {ORVO::Paths::kRelaydConf, "ORVO.Core.Farlink", 1, "get"},
    {ORVO::Paths::kRelaydConf, "ORVO.Core.Farlink", 2, "get"},
    {ORVO::Paths::kMiscConf, "ORVO.Core.Farlink.Upnp", 1, "get"},
    {ORVO::Paths::kMiscConf, "ORVO.Core.Farlink", 3, "get_misc_config"},
    {ORVO::Paths::kServicesConf, "ORVO.Core.Farlink.Permission", 1, "get"},
};

// As the module reads its files: comments allowed, any value at the root.
bool Parses(const std::string& text) {
    Json::Reader reader;
    Json::Value ignored;
    try {
        return reader.parse(text, ignored, false);
    } catch (const Json::Exception&) {
        return false;  // nested deeper than the reader's stack limit
    }
}

void WriteFile(const char* path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    FUZZ_CHECK(file.flush().good());
}

// Absent, or holding something that parses.
bool UsableOrGone(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return !std::filesystem::exists(path);
    std::ostringstream content;
    content << file.rdbuf();
    return Parses(content.str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Reader& reader = kReaders[data[0] % (sizeof kReaders / sizeof kReaders[0])];
    const std::string content(reinterpret_cast<const char*>(data + 1), size - 1);

    FUZZ_CHECK(farlink_test::RestoreBox());
    WriteFile(reader.file, content);
    farlink_fuzz::CallAsHost(farlink_fuzz::Row(reader.api, reader.version, reader.method),
                             Json::Value(Json::objectValue));
    if (!Parses(content)) FUZZ_CHECK(UsableOrGone(reader.file));
    return 0;
}
