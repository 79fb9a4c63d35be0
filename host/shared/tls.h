// The server side of TLS: a context made from the certificate chain and key,
// read by the supervisor while it is root; the front inherits the context
// and never needs to open the key file. The policy is farlink/tls_server.h's. Each
// accepted connection gets its buffer event from farlink/tls_server.h.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace farlink::host {

struct SslCtxDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using TlsContext = std::unique_ptr<SSL_CTX, SslCtxDeleter>;

// Throws StartupError naming the file and OpenSSL's reason.
TlsContext LoadTlsContext(const std::string& certificateFile, const std::string& keyFile);

}  // namespace farlink::host
