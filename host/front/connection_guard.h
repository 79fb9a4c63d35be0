// Keeps the front's connections within bounds, so that a client who floods
// the port with connections, or sends a request a byte at a time, cannot
// take the host away from everybody else:
// - at most `maxConnections` at once: at the cap the front stops accepting
//   (the kernel's backlog holds the rest) until connections close;
// - at most `perAddress` from one client address (addresses in
//   `unlimitedAddresses` excepted);
// - a connection must deliver a whole request within `headerTimeout` of its
//   start, and the next one within `keepAliveTimeout` of its last answer,
//   however slowly its bytes trickle in (over TLS the handshake counts
//   towards it, so a client that stalls in the handshake is cut too);
// - a failing accept (out of descriptors) pauses accepting briefly instead
//   of spinning, and is logged at most once per interval with a count;
// - a connection from one of `proxyPeers` (a forwarder or reverse proxy in
//   front of the host) must begin with a PROXY header (version 2), and the
//   client it names is the connection's client from then on; a malformed
//   header closes the connection, and so does a header from anyone else
//   (logged once).
// The HTTP engine owns its connections; the guard holds a reference to each
// one's buffer event, learns their ends from it, and ends a connection by
// shutting its socket down, which the engine sees as the client leaving.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/listener.h>
#include <farlink/event_handles.h>
#include <farlink/unique_fd.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

namespace farlink::host {

struct ConnectionLimits {
    std::size_t maxConnections = 1024;
    std::size_t perAddress = 64;
    std::set<std::string> unlimitedAddresses;
    std::set<std::string> proxyPeers;
    std::chrono::seconds headerTimeout{10};
    std::chrono::seconds keepAliveTimeout{15};
};

class ConnectionGuard {
public:
    // Accepts on `listener` for `http`; the engine owns the listener from
    // here on. With `tls` (which must outlive the guard) every connection
    // speaks TLS. Throws std::runtime_error when libevent fails.
    ConnectionGuard(event_base* base, evhttp* http, UniqueFd listener, ConnectionLimits limits,
                    SSL_CTX* tls = nullptr);
    ~ConnectionGuard();
    ConnectionGuard(const ConnectionGuard&) = delete;
    ConnectionGuard& operator=(const ConnectionGuard&) = delete;

    // A request has arrived whole on its connection / its answer is sent.
    // Both make the guard the one told when the connection ends; whoever
    // takes that over meanwhile passes it on with Closing.
    void RequestArrived(evhttp_request* request);
    void Answered(evhttp_request* request);
    void Closing(evhttp_connection* connection);
    // Told of every connection the engine is about to free.
    void OnClosing(std::function<void(evhttp_connection*)> listener) {
        closingListener_ = std::move(listener);
    }

    // For an orderly stop: no new connections.
    void StopAccepting();

    std::size_t Open() const { return connections_.size(); }

    // The client a proxy named for the request's connection, as its
    // address and "ADDR:PORT"; empty when no proxy named one.
    std::optional<std::pair<std::string, std::string>> ProxiedClient(evhttp_request* request) const;

private:
    using Clock = std::chrono::steady_clock;
    // A connection whose first bytes are looked at on the socket itself,
    // while its buffer event does not read, until its PROXY header is read.
    struct ProxyWait {
        ConnectionGuard* guard;
        bufferevent* bev;
        EventPtr event;  // first a start once the engine has set the socket, then readable
    };
    struct Connection {
        Clock::time_point deadline;  // for a whole request, while not busy
        bool busy = false;           // a request is being answered
        bool cut = false;
        bool noDelay = false;              // TCP_NODELAY is set
        bool counted = false;              // in perAddress_
        std::string address;               // empty until learnt
        std::string proxiedClient;         // "ADDR:PORT" a proxy named
        std::unique_ptr<ProxyWait> proxy;  // until its header is read
        // Known from its first request on; until then its end is seen only
        // by looking.
        evhttp_connection* engine = nullptr;
    };

    static bufferevent* OnNewConnection(event_base* base, void* self);
    void AwaitProxyHeader(bufferevent* bev, Connection& connection);
    static void OnProxyStart(evutil_socket_t, short, void* wait);
    static void OnProxyReadable(evutil_socket_t fd, short, void* wait);
    void ReadProxyHeader(ProxyWait& wait, int fd);
    void EndProxyWait(Connection& connection);
    static void OnAcceptError(evconnlistener* listener, void* self);
    static void OnSweep(evutil_socket_t, short, void* self);
    static void OnClosed(evhttp_connection* connection, void* self);
    static void OnResume(evutil_socket_t, short, void* self);

    Connection* Find(evhttp_request* request);
    Connection* Watch(evhttp_request* request);
    void Sweep();
    void ScheduleNextSweep(Clock::time_point now);
    bool Released(bufferevent* bev, Connection& connection);
    // True when it cut the connection.
    bool Check(bufferevent* bev, Connection& connection, Clock::time_point now);
    void ScheduleSweep(Clock::time_point due);
    static bool EngineHolds(bufferevent* bev);
    static void Cut(bufferevent* bev, Connection& connection);
    void UpdateAccepting();

    event_base* base_;
    evhttp* http_;
    ConnectionLimits limits_;
    SSL_CTX* tls_;
    evconnlistener* listener_ = nullptr;  // owned by http_ through bound_
    evhttp_bound_socket* bound_ = nullptr;
    EventPtr sweepTimer_;
    EventPtr resumeTimer_;
    std::unordered_map<bufferevent*, Connection> connections_;
    std::map<std::string, std::size_t> perAddress_;
    bool stopped_ = false;
    bool untrustedHeaderLogged_ = false;
    std::function<void(evhttp_connection*)> closingListener_;
    bool paused_ = false;  // accept failed; waiting a moment
    bool full_ = false;    // at the cap
    unsigned long acceptFailures_ = 0;
    Clock::time_point lastFailureReport_{};
    Clock::time_point nextSweep_{};
};

}  // namespace farlink::host
