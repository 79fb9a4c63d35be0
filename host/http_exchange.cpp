#include "http_exchange.h"

#include <event2/buffer.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <farlink/http_method.h>

namespace farlink::host {

namespace {

std::string Header(evhttp_request* request, const char* name) {
    const char* value = evhttp_find_header(evhttp_request_get_input_headers(request), name);
    return value ? value : "";
}

std::string Peer(evhttp_request* request) {
    char* address = nullptr;
    ev_uint16_t port = 0;
    evhttp_connection_get_peer(evhttp_request_get_connection(request), &address, &port);
    std::string host = address ? address : "?";
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return host + ":" + std::to_string(port);
}

}  // namespace

HttpExchange ReadExchange(evhttp_request* request, std::size_t maxBody) {
    HttpExchange exchange;
    exchange.client = Peer(request);
    exchange.method = farlink::HttpMethodName(evhttp_request_get_command(request));
    const evhttp_uri* uri = evhttp_request_get_evhttp_uri(request);
    const char* path = uri ? evhttp_uri_get_path(uri) : nullptr;
    const char* query = uri ? evhttp_uri_get_query(uri) : nullptr;
    exchange.path = path ? path : "";
    exchange.query = query ? query : "";
    exchange.contentType = Header(request, "Content-Type");
    exchange.cookie = Header(request, "Cookie");

    evbuffer* input = evhttp_request_get_input_buffer(request);
    std::size_t length = evbuffer_get_length(input);
    if (length > maxBody) {
        exchange.bodyTooLarge = true;
    } else {
        exchange.body.resize(length);
        evbuffer_copyout(input, exchange.body.data(), length);
    }
    return exchange;
}

}  // namespace farlink::host
