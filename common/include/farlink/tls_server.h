// The server end of a TLS connection as a libevent buffer event, for the
// HTTP engine's per-connection hook (the engine gives it its socket later).
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <openssl/ssl.h>

namespace farlink {

// Runs the server's handshake with `context`; owns its SSL object and
// socket. Null when OpenSSL or libevent fail.
bufferevent* NewServerTlsBufferEvent(event_base* base, SSL_CTX* context);

}  // namespace farlink
