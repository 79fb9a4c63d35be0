#include "tls.h"

#include <farlink/tls_server.h>
#include <openssl/err.h>

#include "startup_error.h"

namespace farlink::host {

namespace {

std::string OpenSslReason() {
    char text[256] = "unknown reason";
    if (const unsigned long error = ERR_get_error(); error != 0) {
        ERR_error_string_n(error, text, sizeof text);
    }
    ERR_clear_error();
    return text;
}

}  // namespace

TlsContext LoadTlsContext(const std::string& certificateFile, const std::string& keyFile) {
    TlsContext context(SSL_CTX_new(TLS_server_method()));
    if (!context || !ApplyServerTlsPolicy(context.get())) {
        throw StartupError("cannot set up TLS: " + OpenSslReason());
    }
    // Idle connections by the thousand should not each hold read buffers.
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
    if (SSL_CTX_use_certificate_chain_file(context.get(), certificateFile.c_str()) != 1) {
        throw StartupError("cannot use the TLS certificate " + certificateFile + ": " +
                           OpenSslReason());
    }
    if (SSL_CTX_use_PrivateKey_file(context.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context.get()) != 1) {
        throw StartupError("cannot use the TLS key " + keyFile + ": " + OpenSslReason());
    }
    return context;
}

}  // namespace farlink::host
