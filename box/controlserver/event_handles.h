// Owning handles for the C objects of libevent and OpenSSL.
#pragma once

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <farlink/unique_fd.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace farlink {
namespace controlserver {

template <typename T, void (*Free)(T*)>
struct FreeWith {
    void operator()(T* object) const { Free(object); }
};

using EventBasePtr = std::unique_ptr<event_base, FreeWith<event_base, event_base_free>>;
using EventPtr = std::unique_ptr<event, FreeWith<event, event_free>>;
using EvhttpPtr = std::unique_ptr<evhttp, FreeWith<evhttp, evhttp_free>>;
using EvbufferPtr = std::unique_ptr<evbuffer, FreeWith<evbuffer, evbuffer_free>>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX, SSL_CTX_free>>;

using UniqueFd = farlink::UniqueFd;

}  // namespace controlserver
}  // namespace farlink
