// The certificates an exchange trusts, parsed once per process instead of
// once per exchange. libcurl reads and parses its whole CA bundle for every
// new handle (more CPU than the TLS handshake itself); the library keeps one
// parsed store and hands it to each handle.
#pragma once

#include <curl/curl.h>
#include <openssl/types.h>

#include <memory>

namespace ORVO {
namespace Relay {
namespace detail {

struct TrustStoreFree {
    void operator()(X509_STORE* store) const;
};
using TrustStore = std::unique_ptr<X509_STORE, TrustStoreFree>;

// Makes `handle` verify peers against the cached store of libcurl's own CA
// bundle and directory, which are read again when the bundle file changes,
// and returns the handle's reference to that store: keep it until the
// transfer is over. When no store can be had, the handle is left as it was
// (and null returned), and libcurl reads the bundle itself: what is trusted
// never changes, only what it costs.
TrustStore UseCachedTrustStore(CURL* handle);

}  // namespace detail
}  // namespace Relay
}  // namespace ORVO
