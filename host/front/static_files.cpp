#include "static_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "startup_error.h"

namespace farlink::host {

namespace {

// The page is a handful of small files; anything larger is not one of them.
constexpr off_t kMaxFileSize = 8 * 1024 * 1024;
constexpr char kIndex[] = "index.html";
constexpr char kApiPrefix[] = "/webapi/";

// Names are held to a plain alphabet and may not begin with a dot, so that
// no escape, "..", hidden file or empty component ever reaches the file
// system.
bool IsPlainName(const std::string& name) {
    return !name.empty() && name[0] != '.' &&
           name.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
               "0123456789._-") == std::string::npos;
}

// "/a/b.css" -> {"a", "b.css"}; "/" -> {"index.html"}; nothing when a
// component is not plain.
std::optional<std::vector<std::string>> Components(const std::string& path) {
    if (path == "/") return std::vector<std::string>{kIndex};
    if (path.empty() || path[0] != '/') return std::nullopt;
    std::vector<std::string> names;
    std::size_t start = 1;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        std::string name = path.substr(start, end - start);
        if (!IsPlainName(name)) return std::nullopt;
        names.push_back(std::move(name));
        start = end + 1;
    }
    return names;
}

// Opens `names` beneath `root` one component at a time without following a
// symbolic link anywhere, so that nothing outside the root is reachable.
UniqueFd OpenBeneath(int root, const std::vector<std::string>& names) {
    UniqueFd directory;
    int at = root;
    for (std::size_t i = 0; i + 1 < names.size(); ++i) {
        directory.Reset(
            openat(at, names[i].c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!directory) return UniqueFd();
        at = directory.Get();
    }
    return UniqueFd(
        openat(at, names.back().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

std::optional<std::string> ReadRegularFile(int fd) {
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kMaxFileSize) {
        return std::nullopt;
    }
    std::string body(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < body.size()) {
        const ssize_t got = read(fd, body.data() + done, body.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        done += static_cast<std::size_t>(got);
    }
    return body;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::string ContentTypeOf(const std::string& name) {
    static const std::pair<const char*, const char*> kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".json", "application/json; charset=utf-8"},
        {".png", "image/png"},
        {".svg", "image/svg+xml"},
        {".ico", "image/x-icon"},
        {".txt", "text/plain; charset=utf-8"},
    };
    for (const auto& [ending, type] : kTypes) {
        if (EndsWith(name, ending)) return type;
    }
    return "application/octet-stream";
}

StaticFiles::StaticFiles(const std::string& root)
    : root_(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (!root_) {
        throw StartupError("cannot open the web root " + root + ": " + std::strerror(errno));
    }
}

bool StaticFiles::Claims(const std::string& method, const std::string& path) {
    return (method == "GET" || method == "HEAD") && path.rfind(kApiPrefix, 0) != 0;
}

std::optional<StaticFile> StaticFiles::Find(const std::string& path) const {
    if (!root_) return std::nullopt;
    const auto names = Components(path);
    if (!names) return std::nullopt;
    UniqueFd file = OpenBeneath(root_.Get(), *names);
    if (!file) return std::nullopt;
    std::optional<std::string> body = ReadRegularFile(file.Get());
    if (!body) return std::nullopt;
    return StaticFile{200, ContentTypeOf(names->back()), std::move(*body)};
}

}  // namespace farlink::host
