// The network side of the control server: HTTP and HTTPS listeners for the
// service, the plain-HTTP fault-control listener, and replies that are
// delayed, withheld or replaced by a closed connection.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "control_state.h"
#include "event_handles.h"

namespace farlink {
namespace controlserver {

class HttpFront {
public:
    // `tls` must outlive the object.
    HttpFront(event_base* base, ControlState& state, SSL_CTX* tls);
    ~HttpFront();
    HttpFront(const HttpFront&) = delete;
    HttpFront& operator=(const HttpFront&) = delete;

    // Serves the service on every address; with `port` 0 the system picks a
    // port for the first address and the others get the same. `port`
    // receives the port bound. An address that cannot be bound is reported
    // in `warnings`; at least one must work.
    bool ListenService(bool https, const std::vector<std::string>& addresses, int& port,
                       std::vector<std::string>& warnings, std::string& error);
    bool ListenControl(const std::string& address, int& port, std::string& error);

private:
    struct Endpoint {
        HttpFront* front;
        const char* scheme;
    };
    struct Pending {
        HttpFront* front;
        evhttp_request* request;
        evhttp_connection* connection;
        Reply reply;
        EventPtr timer;
    };

    static void OnServiceRequest(evhttp_request* request, void* endpoint);
    static void OnControlRequest(evhttp_request* request, void* front);
    static bufferevent* NewTlsBufferevent(event_base* base, void* front);
    static void OnConnectionClosed(evhttp_connection* connection, void* front);
    static void OnPendingTimer(evutil_socket_t, short, void* pending);

    EvhttpPtr NewServiceHttp(Endpoint& endpoint, bool https);
    void Defer(evhttp_request* request, Reply reply);
    void ReleasePending();

    event_base* base_;
    ControlState& state_;
    SSL_CTX* tls_;
    Endpoint httpsEndpoint_{this, "https"};
    Endpoint httpEndpoint_{this, "http"};
    EvhttpPtr https_;
    EvhttpPtr http_;
    EvhttpPtr control_;
    // One reply at most is outstanding per connection: HTTP/1.1 without
    // pipelining does not read the next request before the answer.
    std::map<evhttp_connection*, std::unique_ptr<Pending>> pending_;
};

}  // namespace controlserver
}  // namespace farlink
