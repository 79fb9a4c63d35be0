#include "http_exchange.h"

#include <event2/buffer.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <event2/util.h>
#include <farlink/http_method.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <vector>

namespace farlink::host {

namespace {

std::string Header(evhttp_request* request, const char* name) {
    const char* value = evhttp_find_header(evhttp_request_get_input_headers(request), name);
    return value ? value : "";
}

// The value of a header that must come once; "" when missing or repeated.
std::string SingleHeader(evhttp_request* request, const char* name) {
    const char* value = nullptr;
    for (const evkeyval* header = evhttp_request_get_input_headers(request)->tqh_first;
         header != nullptr; header = header->next.tqe_next) {
        if (evutil_ascii_strcasecmp(header->key, name) != 0) continue;
        if (value != nullptr) return "";
        value = header->value;
    }
    return value ? value : "";
}

void SetPeer(evhttp_request* request, HttpExchange& exchange) {
    char* address = nullptr;
    ev_uint16_t port = 0;
    evhttp_connection_get_peer(evhttp_request_get_connection(request), &address, &port);
    exchange.address = address ? address : "?";
    const bool v6 = exchange.address.find(':') != std::string::npos;
    exchange.client =
        (v6 ? "[" + exchange.address + "]" : exchange.address) + ":" + std::to_string(port);
}

}  // namespace

HttpExchange ReadExchange(evhttp_request* request, std::size_t maxBody) {
    HttpExchange exchange;
    SetPeer(request, exchange);
    exchange.method = farlink::HttpMethodName(evhttp_request_get_command(request));
    const evhttp_uri* uri = evhttp_request_get_evhttp_uri(request);
    const char* path = uri ? evhttp_uri_get_path(uri) : nullptr;
    const char* query = uri ? evhttp_uri_get_query(uri) : nullptr;
    exchange.path = path ? path : "";
    exchange.query = query ? query : "";
    exchange.contentType = Header(request, "Content-Type");
    exchange.cookie = Header(request, "Cookie");
    exchange.token = SingleHeader(request, kTokenHeader);
    exchange.host = Header(request, "Host");
    exchange.origin = Header(request, "Origin");
    exchange.fetchSite = Header(request, "Sec-Fetch-Site");
    exchange.acceptEncoding = Header(request, "Accept-Encoding");
    exchange.ifNoneMatch = Header(request, "If-None-Match");

    evbuffer* input = evhttp_request_get_input_buffer(request);
    std::size_t length = evbuffer_get_length(input);
    if (length > maxBody) {
        exchange.bodyTooLarge = true;
    } else {
        exchange.body.resize(length);
        evbuffer_copyout(input, exchange.body.data(), length);
    }
    WipeBuffer(input);
    return exchange;
}

// The engine frees a request's body without clearing it; a password in it
// must not stay behind in freed memory.
void WipeBuffer(evbuffer* buffer) {
    const int extents = evbuffer_peek(buffer, -1, nullptr, nullptr, 0);
    std::vector<evbuffer_iovec> parts(static_cast<std::size_t>(std::max(extents, 0)));
    evbuffer_peek(buffer, -1, nullptr, parts.data(), extents);
    for (const evbuffer_iovec& part : parts) OPENSSL_cleanse(part.iov_base, part.iov_len);
}

}  // namespace farlink::host
