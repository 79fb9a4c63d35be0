// One HTTP request and its answer, as the server hands them to the code
// that decides the answer.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace farlink::host {

struct HttpExchange {
    std::string client;  // "ADDR:PORT"
    std::string method;  // "GET", "POST", ...
    std::string path;    // as sent, without the query
    std::string query;   // as sent, still encoded
    std::string contentType;
    std::string cookie;  // the Cookie header
    std::string body;    // empty when bodyTooLarge
    bool bodyTooLarge = false;
};

struct HttpReply {
    int status = 200;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
};

// Called on a worker thread; may block that worker, never the others.
using HttpHandler = std::function<HttpReply(const HttpExchange&)>;

}  // namespace farlink::host
