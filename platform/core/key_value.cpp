// Settings files of the form `key="value"`, one per line.
#include <orvo/core.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "platform_files.h"

namespace {

constexpr int kError = -1;
constexpr int kAbsent = 0;
constexpr int kFound = 1;

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// getline(3) grows its buffer with malloc; this frees it on every path.
struct LineBuffer {
    char* data = nullptr;
    std::size_t capacity = 0;
    ~LineBuffer() { std::free(data); }
};

std::string_view Trim(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    std::string_view::size_type first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

// True when `line` assigns `key`; `value` then holds the value without its
// surrounding double quotes.
bool MatchLine(std::string_view line, std::string_view key, std::string_view& value) {
    line = Trim(line);
    if (line.empty() || line.front() == '#') {
        return false;
    }
    std::string_view::size_type equals = line.find('=');
    if (equals == std::string_view::npos || Trim(line.substr(0, equals)) != key) {
        return false;
    }
    value = Trim(line.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
    }
    return true;
}

int FindValue(const char* file, const char* key, std::string& value) {
    if (file == nullptr || key == nullptr || *key == '\0') {
        return kError;
    }
    FilePtr stream(std::fopen(file, "re"));
    if (!stream) {
        return kError;
    }
    LineBuffer line;
    bool found = false;
    ssize_t length;
    while ((length = ::getline(&line.data, &line.capacity, stream.get())) >= 0) {
        std::string_view match;
        if (MatchLine(std::string_view(line.data, static_cast<std::size_t>(length)), key, match)) {
            value.assign(match);
            found = true;
        }
    }
    if (std::ferror(stream.get())) {
        return kError;
    }
    return found ? kFound : kAbsent;
}

}  // namespace

int OLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int /*flags*/) {
    if (buffer == nullptr || size <= 0) {
        return kError;
    }
    buffer[0] = '\0';
    std::string value;
    int result = FindValue(file, key, value);
    if (result == kFound) {
        orvo::platform::CopyTerminated(value, buffer, static_cast<std::size_t>(size));
    }
    return result;
}

int OLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int /*flags*/) {
    if (value == nullptr) {
        return kError;
    }
    std::string found;
    int result = FindValue(file, key, found);
    if (result != kFound) {
        return result;
    }
    return found == value ? 1 : 0;
}
