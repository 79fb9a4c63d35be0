// The HTTP side of the server: a few worker threads, each with its own event
// loop and HTTP engine accepting on the same listening socket. A worker that
// is busy in a handler does not accept, so new connections go to idle ones.
#pragma once

#include <farlink/unique_fd.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "http_exchange.h"

namespace farlink::host {

struct HttpLimits {
    std::size_t maxBody = 1024 * 1024;
    std::size_t maxHeaders = 64 * 1024;
    std::chrono::seconds timeout{30};  // to read a request or write a reply
};

class HttpServer {
public:
    HttpServer(HttpHandler handler, HttpLimits limits);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Starts `threads` workers on their own copies of `listener`; throws
    // StartupError.
    void Start(const UniqueFd& listener, unsigned threads);

    // Stops accepting and lets requests in flight finish. False when some
    // worker is still busy after `grace`: it cannot be stopped safely, so the
    // caller must end the process without unwinding (std::_Exit).
    bool Stop(std::chrono::milliseconds grace);

private:
    class Worker;

    HttpHandler handler_;
    HttpLimits limits_;
    std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace farlink::host
