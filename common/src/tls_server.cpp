#include "farlink/tls_server.h"

#include <event2/bufferevent_ssl.h>

namespace farlink {

bool ApplyServerTlsPolicy(SSL_CTX* context) {
    // Renegotiation asked for by a client costs the server a handshake each
    // time; nothing here needs it.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    // Received plaintext (a password among it) is wiped once handed on.
    SSL_CTX_set_options(context, SSL_OP_CLEANSE_PLAINTEXT);
    return SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
           SSL_CTX_set_cipher_list(context,
                                   "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20") == 1;
}

bufferevent* NewServerTlsBufferEvent(event_base* base, SSL_CTX* context) {
    SSL* ssl = SSL_new(context);
    if (ssl == nullptr) return nullptr;
    // With BEV_OPT_CLOSE_ON_FREE the buffer event frees the SSL object.
    bufferevent* bev = bufferevent_openssl_socket_new(base, -1, ssl, BUFFEREVENT_SSL_ACCEPTING,
                                                      BEV_OPT_CLOSE_ON_FREE);
    if (bev == nullptr) {
        SSL_free(ssl);
        return nullptr;
    }
    // A client that just closes its socket after its answer is common and
    // harmless: every request is framed by HTTP, not by the TLS close.
    bufferevent_openssl_set_allow_dirty_shutdown(bev, 1);
    return bev;
}

}  // namespace farlink
