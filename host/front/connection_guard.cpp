#include "connection_guard.h"

#include <arpa/inet.h>
#include <farlink/proxy_header.h>
#include <farlink/tls_server.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "event_time.h"

namespace farlink::host {

namespace {

// Connections are checked against their addresses and deadlines when
// something happens to them: soon after connections arrive or are cut, so
// that a burst is shed (and its descriptors given back) in a few
// milliseconds rather than in steps; at once when one ends; at the next
// deadline. Only a connection whose end the engine does not report (one
// without a request yet) is looked at every interval. No connection, no
// timer: an idle front sleeps.
constexpr std::chrono::milliseconds kSweepInterval{100};
constexpr std::chrono::milliseconds kBusySweepInterval{2};
// A deadline's sweep comes this much after it, so that it is past.
constexpr std::chrono::milliseconds kDeadlineMargin{1};
// How long accepting pauses after a failed accept (out of descriptors).
constexpr std::chrono::milliseconds kAcceptPause{250};
// A failing accept is reported at most this often.
constexpr std::chrono::seconds kReportInterval{10};

// A PROXY header's signature, and the longest header read (addresses and
// a little room for extensions).
constexpr std::size_t kProxySignature = 12;
constexpr std::size_t kLongestProxyHeader = 512;

std::string AddressText(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (address.ss_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text,
                  sizeof text);
    } else if (address.ss_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text,
                  sizeof text);
    }
    return text;
}

// As the access log shows a client: "ADDR:PORT", "[ADDR]:PORT" for IPv6.
std::string ClientText(const sockaddr_storage& address) {
    const bool v6 = address.ss_family == AF_INET6;
    const in_port_t port = v6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                              : reinterpret_cast<const sockaddr_in&>(address).sin_port;
    const std::string text = AddressText(address);
    return (v6 ? "[" + text + "]" : text) + ":" + std::to_string(ntohs(port));
}

std::string PeerAddress(int fd) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (fd < 0 || getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return "?";
    return AddressText(peer);
}

}  // namespace

ConnectionGuard::ConnectionGuard(event_base* base, evhttp* http, UniqueFd listener,
                                 ConnectionLimits limits, SSL_CTX* tls)
    : base_(base), http_(http), limits_(std::move(limits)), tls_(tls) {
    sweepTimer_.reset(evtimer_new(base_, &ConnectionGuard::OnSweep, this));
    resumeTimer_.reset(evtimer_new(base_, &ConnectionGuard::OnResume, this));
    listener_ = evconnlistener_new(
        base_, nullptr, nullptr, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, listener.Get());
    if (!sweepTimer_ || !resumeTimer_ || listener_ == nullptr) {
        if (listener_ != nullptr) evconnlistener_free(listener_);
        throw std::runtime_error("cannot set up the listener");
    }
    listener.Release();  // the listener closes it
    bound_ = evhttp_bind_listener(http_, listener_);
    if (bound_ == nullptr) {
        evconnlistener_free(listener_);
        throw std::runtime_error("cannot accept on the listening socket");
    }
    evconnlistener_set_error_cb(listener_, &ConnectionGuard::OnAcceptError);
    evhttp_set_bevcb(http_, &ConnectionGuard::OnNewConnection, this);
}

ConnectionGuard::~ConnectionGuard() {
    evhttp_set_bevcb(http_, nullptr, nullptr);
    // The engine still owns the open ones and frees them itself, later.
    for (auto& [bev, connection] : connections_) {
        if (connection.engine != nullptr && EngineHolds(bev)) {
            evhttp_connection_set_closecb(connection.engine, nullptr, nullptr);
        }
        bufferevent_decref(bev);
    }
}

// The engine's hook for each accepted connection, before it has its socket.
bufferevent* ConnectionGuard::OnNewConnection(event_base* base, void* self) {
    auto& guard = *static_cast<ConnectionGuard*>(self);
    bufferevent* bev = guard.tls_ != nullptr
                           ? farlink::NewServerTlsBufferEvent(base, guard.tls_)
                           : bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE);
    if (bev == nullptr) return nullptr;
    bufferevent_incref(bev);  // outlives the engine's use, so that its end can be seen
    Connection& connection = guard.connections_[bev];
    connection.deadline = Clock::now() + guard.limits_.headerTimeout;
    if (!guard.limits_.proxyPeers.empty()) guard.AwaitProxyHeader(bev, connection);
    guard.UpdateAccepting();
    guard.ScheduleSweep(Clock::now() + kBusySweepInterval);
    return bev;
}

// With proxies to trust, every connection's first bytes are looked at on
// the socket before the HTTP engine or TLS reads any. The engine sets the
// socket and starts reading right after this hook; the start event runs
// next, before the loop next polls, and stops that reading until the header
// is dealt with.
void ConnectionGuard::AwaitProxyHeader(bufferevent* bev, Connection& connection) {
    connection.proxy.reset(new ProxyWait{this, bev, nullptr});
    connection.proxy->event.reset(
        event_new(base_, -1, 0, &ConnectionGuard::OnProxyStart, connection.proxy.get()));
    if (connection.proxy->event) event_active(connection.proxy->event.get(), EV_TIMEOUT, 0);
}

void ConnectionGuard::OnProxyStart(evutil_socket_t, short, void* wait) {
    auto& proxyWait = *static_cast<ProxyWait*>(wait);
    bufferevent_disable(proxyWait.bev, EV_READ);
    proxyWait.event.reset(event_new(proxyWait.guard->base_, bufferevent_getfd(proxyWait.bev),
                                    EV_READ | EV_PERSIST, &ConnectionGuard::OnProxyReadable,
                                    &proxyWait));
    if (proxyWait.event) event_add(proxyWait.event.get(), nullptr);
}

void ConnectionGuard::OnProxyReadable(evutil_socket_t fd, short, void* wait) {
    auto& proxyWait = *static_cast<ProxyWait*>(wait);
    proxyWait.guard->ReadProxyHeader(proxyWait, fd);
}

void ConnectionGuard::ReadProxyHeader(ProxyWait& wait, int fd) {
    auto found = connections_.find(wait.bev);
    if (found == connections_.end()) return;
    Connection& connection = found->second;
    unsigned char head[kLongestProxyHeader];
    const ssize_t got = recv(fd, head, sizeof head, MSG_PEEK);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
    if (got <= 0) {  // the engine sees the end or the error for itself
        EndProxyWait(connection);
        return;
    }
    const auto size = static_cast<std::size_t>(got);
    const farlink::ProxyHeader header = farlink::ParseProxyHeader(head, size);
    using Status = farlink::ProxyHeader::Status;
    connection.address = PeerAddress(fd);
    if (limits_.proxyPeers.count(connection.address) == 0) {
        if (header.status == Status::kIncomplete && size < kProxySignature) return;
        if (header.status != Status::kMalformed && !untrustedHeaderLogged_) {
            std::fprintf(stderr,
                         "farlink-host: refused a PROXY header from %s, which --proxy-from does "
                         "not name; further ones are refused without a word\n",
                         connection.address.c_str());
            untrustedHeaderLogged_ = true;
        }
        // What is not a header is the client's own first request.
        if (header.status != Status::kMalformed) Cut(wait.bev, connection);
        EndProxyWait(connection);
        return;
    }
    if (header.status == Status::kIncomplete && size < sizeof head) return;  // more to come
    if (header.status != Status::kComplete ||
        recv(fd, head, header.length, 0) != static_cast<ssize_t>(header.length)) {
        Cut(wait.bev, connection);
        EndProxyWait(connection);
        return;
    }
    if (header.hasClient) {
        connection.address = AddressText(header.client);
        connection.proxiedClient = ClientText(header.client);
    }
    EndProxyWait(connection);
}

// The engine reads from here on (and sees a connection that was cut end).
void ConnectionGuard::EndProxyWait(Connection& connection) {
    bufferevent* bev = connection.proxy->bev;
    connection.proxy.reset();
    bufferevent_enable(bev, EV_READ);
}

std::optional<std::pair<std::string, std::string>> ConnectionGuard::ProxiedClient(
    evhttp_request* request) const {
    evhttp_connection* connection = evhttp_request_get_connection(request);
    if (connection == nullptr) return std::nullopt;
    auto found = connections_.find(evhttp_connection_get_bufferevent(connection));
    if (found == connections_.end() || found->second.proxiedClient.empty()) return std::nullopt;
    return std::make_pair(found->second.address, found->second.proxiedClient);
}

ConnectionGuard::Connection* ConnectionGuard::Find(evhttp_request* request) {
    evhttp_connection* connection = evhttp_request_get_connection(request);
    if (connection == nullptr) return nullptr;
    auto found = connections_.find(evhttp_connection_get_bufferevent(connection));
    return found == connections_.end() ? nullptr : &found->second;
}

// An answer leaves in more than one write (over TLS, in more than one
// record); with Nagle's algorithm the later ones wait for the client's
// delayed acknowledgement, some 40 ms per answer on a kept-alive connection.
void ConnectionGuard::RequestArrived(evhttp_request* request) {
    Connection* connection = Watch(request);
    if (connection == nullptr) return;
    connection->busy = true;
    if (!connection->noDelay) {
        const int on = 1;
        const int fd = bufferevent_getfd(
            evhttp_connection_get_bufferevent(evhttp_request_get_connection(request)));
        connection->noDelay = setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
    }
}

void ConnectionGuard::Answered(evhttp_request* request) {
    if (Connection* connection = Watch(request)) {
        connection->busy = false;
        connection->deadline = Clock::now() + limits_.keepAliveTimeout;
        ScheduleSweep(connection->deadline + kDeadlineMargin);
    }
}

ConnectionGuard::Connection* ConnectionGuard::Watch(evhttp_request* request) {
    Connection* connection = Find(request);
    if (connection == nullptr) return nullptr;
    connection->engine = evhttp_request_get_connection(request);
    evhttp_connection_set_closecb(connection->engine, &ConnectionGuard::OnClosed, this);
    return connection;
}

void ConnectionGuard::OnClosed(evhttp_connection* connection, void* self) {
    static_cast<ConnectionGuard*>(self)->Closing(connection);
}

// The engine is about to free the connection; the sweep right after sees
// it gone.
void ConnectionGuard::Closing(evhttp_connection* connection) {
    if (closingListener_) closingListener_(connection);
    ScheduleSweep(Clock::now());
}

void ConnectionGuard::StopAccepting() {
    stopped_ = true;
    UpdateAccepting();
}

void ConnectionGuard::UpdateAccepting() {
    full_ = connections_.size() >= limits_.maxConnections;
    if (stopped_ || paused_ || full_) {
        evconnlistener_disable(listener_);
    } else {
        evconnlistener_enable(listener_);
    }
}

void ConnectionGuard::OnAcceptError(evconnlistener*, void* self) {
    auto& guard = *static_cast<ConnectionGuard*>(self);
    const int error = errno;
    ++guard.acceptFailures_;
    const Clock::time_point now = Clock::now();
    if (now - guard.lastFailureReport_ >= kReportInterval) {
        std::fprintf(stderr,
                     "farlink-host: accepting failed %lu times (last: %s) with %zu connections "
                     "open; pausing accepts\n",
                     guard.acceptFailures_, std::strerror(error), guard.connections_.size());
        guard.acceptFailures_ = 0;
        guard.lastFailureReport_ = now;
    }
    guard.paused_ = true;
    guard.UpdateAccepting();
    const timeval pause = ToTimeval(kAcceptPause);
    evtimer_add(guard.resumeTimer_.get(), &pause);
}

void ConnectionGuard::OnResume(evutil_socket_t, short, void* self) {
    auto& guard = *static_cast<ConnectionGuard*>(self);
    guard.paused_ = false;
    guard.UpdateAccepting();
}

void ConnectionGuard::OnSweep(evutil_socket_t, short, void* self) {
    static_cast<ConnectionGuard*>(self)->Sweep();
}

void ConnectionGuard::ScheduleSweep(Clock::time_point due) {
    if (event_pending(sweepTimer_.get(), EV_TIMEOUT, nullptr) && nextSweep_ <= due) return;
    nextSweep_ = due;
    const auto delay = std::max<Clock::duration>(due - Clock::now(), {});
    const timeval wait = ToTimeval(std::chrono::ceil<std::chrono::milliseconds>(delay));
    event_add(sweepTimer_.get(), &wait);
}

void ConnectionGuard::ScheduleNextSweep(Clock::time_point now) {
    evtimer_del(sweepTimer_.get());
    for (const auto& [bev, connection] : connections_) {
        if (connection.engine == nullptr) {
            ScheduleSweep(now + kSweepInterval);
        } else if (!connection.busy && !connection.cut) {
            ScheduleSweep(connection.deadline + kDeadlineMargin);
        }
    }
}

void ConnectionGuard::Sweep() {
    const Clock::time_point now = Clock::now();
    bool changed = false;
    for (auto it = connections_.begin(); it != connections_.end();) {
        if (Released(it->first, it->second)) {
            it = connections_.erase(it);
            changed = true;
            continue;
        }
        changed |= Check(it->first, it->second, now);
        ++it;
    }
    UpdateAccepting();
    ScheduleNextSweep(now);
    if (changed) ScheduleSweep(now + kBusySweepInterval);
}

// The engine frees a connection's buffer event by clearing its callbacks and
// dropping its reference; ours is then the last.
bool ConnectionGuard::EngineHolds(bufferevent* bev) {
    bufferevent_event_cb eventCallback = nullptr;
    bufferevent_getcb(bev, nullptr, nullptr, &eventCallback, nullptr);
    return eventCallback != nullptr;
}

bool ConnectionGuard::Released(bufferevent* bev, Connection& connection) {
    if (EngineHolds(bev)) return false;
    connection.proxy.reset();
    if (connection.counted) {
        auto count = perAddress_.find(connection.address);
        if (count != perAddress_.end() && --count->second == 0) perAddress_.erase(count);
    }
    bufferevent_decref(bev);
    return true;
}

bool ConnectionGuard::Check(bufferevent* bev, Connection& connection, Clock::time_point now) {
    if (connection.cut) return false;
    if (!connection.counted && !connection.proxy) {
        if (connection.address.empty()) connection.address = PeerAddress(bufferevent_getfd(bev));
        connection.counted = true;
        const std::size_t count = ++perAddress_[connection.address];
        if (count > limits_.perAddress &&
            limits_.unlimitedAddresses.count(connection.address) == 0) {
            Cut(bev, connection);
            return true;
        }
    }
    if (connection.busy || now <= connection.deadline) return false;
    Cut(bev, connection);
    return true;
}

// The engine sees the client leave, and frees the connection as usual.
void ConnectionGuard::Cut(bufferevent* bev, Connection& connection) {
    connection.cut = true;
    shutdown(bufferevent_getfd(bev), SHUT_RDWR);
}

}  // namespace farlink::host
