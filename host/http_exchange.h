// One HTTP request and its answer, as the server hands them to the code
// that decides the answer.
#pragma once

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

}  // namespace farlink::host
