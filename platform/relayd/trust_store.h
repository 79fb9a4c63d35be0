// The certificates an exchange trusts, parsed once per process instead of
// once per exchange. libcurl reads and parses its whole CA bundle for every
// new handle (more CPU than the TLS handshake itself); the library keeps one
// parsed store and hands it to each handle.
#pragma once

#include <curl/curl.h>

namespace ORVO {
namespace Relay {
namespace detail {

// Makes `handle` verify peers against the cached store of libcurl's own CA
// bundle and directory, which are read again when the bundle file changes.
// When no store can be had, the handle is left as it was and libcurl reads
// the bundle itself: what is trusted never changes, only what it costs.
void UseCachedTrustStore(CURL* handle);

}  // namespace detail
}  // namespace Relay
}  // namespace ORVO
