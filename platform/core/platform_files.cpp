#include "platform_files.h"

#include <farlink/file_io.h>
#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace orvo {
namespace platform {

int ReadFile(const std::string& path, std::string& out) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.Valid()) {
        return errno;
    }
    std::string content;
    char chunk[8192];
    for (;;) {
        ssize_t got = ::read(fd.Get(), chunk, sizeof chunk);
        if (got == 0) {
            break;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        content.append(chunk, static_cast<std::size_t>(got));
    }
    out = std::move(content);
    return 0;
}

JsonReadResult ReadJsonFile(const std::string& path, Json::Value& out) {
    std::string text;
    int error = ReadFile(path, text);
    if (error != 0) {
        return error == ENOENT ? JsonReadResult::kMissing : JsonReadResult::kUnreadable;
    }
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    bool ok = false;
    try {
        ok = reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr);
    } catch (const std::exception&) {
        // The parser throws on input nested deeper than its stack limit.
        ok = false;
    }
    if (!ok) {
        return JsonReadResult::kMalformed;
    }
    out = std::move(parsed);
    return JsonReadResult::kOk;
}

const Json::Value* FindMember(const Json::Value& object, const std::string& name) {
    if (!object.isObject()) {
        return nullptr;
    }
    return object.find(name.data(), name.data() + name.size());
}

bool MakeDirs(const std::string& dir) {
    if (dir.empty()) {
        return false;
    }
    for (std::string::size_type pos = 1; pos != std::string::npos;) {
        pos = dir.find('/', pos);
        std::string prefix = dir.substr(0, pos);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
        if (pos != std::string::npos) {
            ++pos;
        }
    }
    struct stat st;
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool AppendLine(const std::string& path, const std::string& line) {
    if (!MakeDirs(farlink::DirectoryOf(path))) {
        return false;
    }
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!fd.Valid()) {
        return false;
    }
    std::string record = line + '\n';
    return farlink::WriteAll(fd.Get(), record.data(), record.size());
}

bool WriteFileAtomically(const std::string& path, const std::string& content) {
    mode_t mode = 0644;
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        mode = st.st_mode & 07777;
    }
    return farlink::WriteFileAtomically(path, content, mode);
}

void CopyTerminated(const std::string& text, char* buffer, std::size_t size) {
    if (buffer == nullptr || size == 0) {
        return;
    }
    std::size_t length = std::min(text.size(), size - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

}  // namespace platform
}  // namespace orvo
