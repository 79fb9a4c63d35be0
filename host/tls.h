// The server side of TLS: a context made from the certificate chain and key
// (read by the supervisor while it is root; the front inherits the context
// and never needs to open the key file), and the encrypted buffer event
// each accepted connection gets from it. TLS 1.2 and later only.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
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

// A buffer event that runs the server's handshake once the engine gives it
// its socket; null when OpenSSL or libevent fail. It owns its SSL object and
// socket.
bufferevent* NewTlsBufferEvent(event_base* base, SSL_CTX* context);

}  // namespace farlink::host
