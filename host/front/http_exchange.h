// One HTTP request and its answer, as the server hands them to the code
// that decides the answer.
#pragma once

#include <event2/buffer.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

struct evhttp_request;

namespace farlink::host {

// The header that carries a session's anti-forgery token.
constexpr char kTokenHeader[] = "X-Farlink-Token";
constexpr char kJsonContentType[] = "application/json; charset=utf-8";

struct HttpExchange {
    std::string client;   // "ADDR:PORT"
    std::string address;  // ADDR alone
    std::string method;   // "GET", "POST", ...
    std::string path;     // as sent, without the query
    std::string query;    // as sent, still encoded
    std::string contentType;
    std::string cookie;          // the Cookie header
    std::string token;           // the token header; empty when missing or sent more than once
    std::string host;            // the Host header
    std::string origin;          // the Origin header
    std::string fetchSite;       // the Sec-Fetch-Site header
    std::string acceptEncoding;  // the Accept-Encoding header
    std::string ifNoneMatch;     // the If-None-Match header
    std::string body;            // empty when bodyTooLarge
    bool bodyTooLarge = false;
};

// What the front reads of a request from the HTTP engine: a body larger
// than `maxBody` is not copied, only flagged.
// Also wipes the body from the engine's buffer.
HttpExchange ReadExchange(evhttp_request* request, std::size_t maxBody);

// Overwrites what `buffer` holds.
void WipeBuffer(evbuffer* buffer);

struct HttpReply {
    int status = 200;
    std::string contentType = kJsonContentType;
    std::string body;
    // Beyond the content type and the headers every answer gets.
    std::vector<std::pair<std::string, std::string>> headers;
    // The admin page's files may be kept by the browser and revalidated;
    // nothing else may be stored (a login answer holds a session id).
    bool revalidated = false;
};

}  // namespace farlink::host
