#include "static_files.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

// A regular file opened beneath the root, with the facts its validator is
// made of.
struct OpenFile {
    UniqueFd fd;
    struct stat info {};
};

std::optional<OpenFile> OpenRegular(int root, const std::vector<std::string>& names) {
    OpenFile file{OpenBeneath(root, names)};
    if (!file.fd || fstat(file.fd.Get(), &file.info) != 0 || !S_ISREG(file.info.st_mode) ||
        file.info.st_size > kMaxFileSize) {
        return std::nullopt;
    }
    return file;
}

std::optional<std::string> ReadAll(const OpenFile& file) {
    std::string body(static_cast<std::size_t>(file.info.st_size), '\0');
    std::size_t done = 0;
    while (done < body.size()) {
        const ssize_t got = read(file.fd.Get(), body.data() + done, body.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        done += static_cast<std::size_t>(got);
    }
    return body;
}

// Size and modification time name one version of a file; the gzip twin is
// another representation, so it has a validator of its own.
std::string ValidatorOf(const struct stat& info, bool gzip) {
    char text[96];
    std::snprintf(text, sizeof text, "\"%llx-%llx.%lx%s\"",
                  static_cast<unsigned long long>(info.st_size),
                  static_cast<unsigned long long>(info.st_mtim.tv_sec),
                  static_cast<unsigned long>(info.st_mtim.tv_nsec), gzip ? "-gzip" : "");
    return text;
}

bool OlderThan(const struct stat& a, const struct stat& b) {
    return a.st_mtim.tv_sec < b.st_mtim.tv_sec ||
           (a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec < b.st_mtim.tv_nsec);
}

std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The comma-separated members of a header, trimmed.
std::vector<std::string> ListMembers(const std::string& header) {
    std::vector<std::string> members;
    std::size_t start = 0;
    while (start <= header.size()) {
        const std::size_t end = std::min(header.find(',', start), header.size());
        members.push_back(Trimmed(header.substr(start, end - start)));
        start = end + 1;
    }
    return members;
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

bool TakesGzip(const std::string& acceptEncoding) {
    for (const std::string& member : ListMembers(acceptEncoding)) {
        const std::size_t semicolon = member.find(';');
        if (strcasecmp(Trimmed(member.substr(0, semicolon)).c_str(), "gzip") != 0) continue;
        if (semicolon == std::string::npos) return true;
        const char* q = strcasestr(member.c_str() + semicolon, "q=");
        return q == nullptr || std::strtod(q + 2, nullptr) > 0;
    }
    return false;
}

bool NoneMatchHolds(const std::string& ifNoneMatch, const std::string& etag) {
    for (const std::string& member : ListMembers(ifNoneMatch)) {
        if (member == "*" || member == etag ||
            (member.rfind("W/", 0) == 0 && member.substr(2) == etag)) {
            return true;
        }
    }
    return false;
}

std::optional<StaticFile> StaticFiles::Find(const std::string& path,
                                            const FileConditions& conditions) const {
    if (!root_) return std::nullopt;
    auto names = Components(path);
    if (!names) return std::nullopt;
    std::optional<OpenFile> chosen = OpenRegular(root_.Get(), *names);
    if (!chosen) return std::nullopt;
    StaticFile file{200, ContentTypeOf(names->back()), "", {{"Vary", "Accept-Encoding"}}};
    bool gzip = false;
    if (TakesGzip(conditions.acceptEncoding)) {
        names->back() += ".gz";
        // A twin older than its file was left from an earlier version.
        std::optional<OpenFile> twin = OpenRegular(root_.Get(), *names);
        if (twin && !OlderThan(twin->info, chosen->info)) {
            chosen = std::move(twin);
            gzip = true;
            file.headers.emplace_back("Content-Encoding", "gzip");
        }
    }
    const std::string etag = ValidatorOf(chosen->info, gzip);
    file.headers.emplace_back("ETag", etag);
    if (NoneMatchHolds(conditions.ifNoneMatch, etag)) {
        file.status = 304;
        return file;
    }
    std::optional<std::string> body = ReadAll(*chosen);
    if (!body) return std::nullopt;
    file.body = std::move(*body);
    return file;
}

}  // namespace farlink::host
