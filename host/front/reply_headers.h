// The headers every answer of the host carries, whoever made it: no type
// sniffing, no caching (a login answer holds a session id) but for the
// admin page's files, which are kept and revalidated on every use, no
// referrer, no framing, and a content-security policy chosen by the answer's type: none
// at all for JSON and anything else, and for the admin page's own HTML,
// scripts and styles only what the page itself serves.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace farlink::host {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

HeaderList SafeHeaders(const std::string& contentType, bool revalidated = false);

}  // namespace farlink::host
