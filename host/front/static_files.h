// The admin page: plain files the host serves from one directory, the web
// root. Only regular files that lie under it are served; a path that names
// anything else is not found, so the caller answers it like any unknown
// path.
#pragma once

#include <farlink/unique_fd.h>

#include <optional>
#include <string>

namespace farlink::host {

struct StaticFile {
    int status = 200;
    std::string contentType;
    std::string body;
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
    std::optional<StaticFile> Find(const std::string& path) const;

private:
    UniqueFd root_;
};

// The type a file is served as, by its name's ending.
std::string ContentTypeOf(const std::string& name);

}  // namespace farlink::host
