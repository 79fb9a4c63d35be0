// The admin page: plain files the host serves from one directory, the web
// root. Only regular files that lie under it are served; a path that names
// anything else is not found, so the caller answers it like any unknown
// path. Every file carries a validator (ETag), so that a browser keeps it
// and asks only whether it changed; a file's gzip twin beside it (name.gz,
// made when the page is built) goes to a browser that takes gzip.
#pragma once

#include <farlink/unique_fd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace farlink::host {

struct StaticFile {
    int status = 200;  // 304: the browser's copy is current, no body
    std::string contentType;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // ETag, Vary, Content-Encoding
};

// What the browser says of the file it wants: the encodings it takes
// (Accept-Encoding) and the validators of the copies it holds
// (If-None-Match).
struct FileConditions {
    std::string acceptEncoding;
    std::string ifNoneMatch;
};

class StaticFiles {
public:
    // No web root: nothing is served.
    StaticFiles() = default;
    // Opens `root`; throws StartupError when it is not a readable directory.
    explicit StaticFiles(const std::string& root);

    // Whether `path` is one the page may own: everything but the web API.
    static bool Claims(const std::string& method, const std::string& path);

    // The file for `path` ("/" is index.html), or nothing when there is no
    // such regular file under the root.
    std::optional<StaticFile> Find(const std::string& path,
                                   const FileConditions& conditions = {}) const;

private:
    UniqueFd root_;
};

// The type a file is served as, by its name's ending.
std::string ContentTypeOf(const std::string& name);

// Whether an Accept-Encoding header takes gzip (not refused with q=0).
bool TakesGzip(const std::string& acceptEncoding);

// Whether an If-None-Match header names `etag` (weakly compared) or is "*".
bool NoneMatchHolds(const std::string& ifNoneMatch, const std::string& etag);

}  // namespace farlink::host
