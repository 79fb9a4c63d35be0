// The server end of a TLS connection as a libevent buffer event, for the
// HTTP engine's per-connection hook (the engine gives it its socket later).
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <openssl/ssl.h>

namespace farlink {

// What every server context here allows: TLS 1.2 and later, and for TLS 1.2
// only forward-secret AEAD suites (TLS 1.3 has no others); no
// renegotiation. False when OpenSSL refuses the settings.
bool ApplyServerTlsPolicy(SSL_CTX* context);

// Runs the server's handshake with `context`; owns its SSL object and
// socket. Null when OpenSSL or libevent fail.
bufferevent* NewServerTlsBufferEvent(event_base* base, SSL_CTX* context);

}  // namespace farlink
