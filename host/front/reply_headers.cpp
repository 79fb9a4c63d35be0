#include "reply_headers.h"

#include <array>

namespace farlink::host {

namespace {

constexpr char kApiPolicy[] = "default-src 'none'; frame-ancestors 'none'";
constexpr char kPagePolicy[] =
    "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; object-src 'none'; base-uri 'none'; form-action 'self'; "
    "frame-ancestors 'none'";

// The media type alone: lower case, without parameters or blanks.
std::string MediaType(const std::string& contentType) {
    std::string type = contentType.substr(0, contentType.find(';'));
    const std::size_t end = type.find_last_not_of(" \t");
    type.resize(end == std::string::npos ? 0 : end + 1);
    for (char& c : type) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return type;
}

bool IsPageType(const std::string& contentType) {
    static const std::array<std::string, 3> kPageTypes = {"text/html", "text/css",
                                                          "text/javascript"};
    const std::string type = MediaType(contentType);
    for (const std::string& page : kPageTypes) {
        if (type == page) return true;
    }
    return false;
}

}  // namespace

HeaderList SafeHeaders(const std::string& contentType, bool revalidated) {
    return {
        {"X-Content-Type-Options", "nosniff"},
        {"Cache-Control", revalidated ? "no-cache" : "no-store"},
        {"Referrer-Policy", "no-referrer"},
        {"X-Frame-Options", "DENY"},
        {"Content-Security-Policy", IsPageType(contentType) ? kPagePolicy : kApiPolicy},
    };
}

}  // namespace farlink::host
