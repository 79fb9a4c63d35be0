// Owning handles for the C objects of libevent and OpenSSL.
#pragma once

#include <farlink/event_handles.h>
#include <farlink/unique_fd.h>
#include <openssl/ssl.h>

#include <memory>

namespace farlink {
namespace controlserver {

using SslCtxPtr = std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX, SSL_CTX_free>>;
using UniqueFd = farlink::UniqueFd;

}  // namespace controlserver
}  // namespace farlink
