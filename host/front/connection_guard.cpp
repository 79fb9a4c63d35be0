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

// How often connections are checked against their deadlines and addresses;
// soon after connections arrive or are cut, so that a burst is shed (and its
// descriptors given back) in a few milliseconds rather than in steps.
constexpr std::chrono::milliseconds kSweepInterval{100};
constexpr std::chrono::milliseconds kBusySweepInterval{2};
// How long accepting pauses after a failed accept (out of descriptors).
constexpr std::chrono::milliseconds kAcceptPause{250};
// A failing accept is reported at most this often.
constexpr std::chrono::seconds kReportInterval{10};

// A PROXY header's fixed part and signature, and the longest header read
// (addresses and a little room for extensions).
constexpr std::size_t kProxyFixedPart = 16;
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
    ScheduleSweep(kSweepInterval);
}

ConnectionGuard::~ConnectionGuard() {
    evhttp_set_bevcb(http_, nullptr, nullptr);
    // The engine still owns the open ones and frees them itself.
    for (auto& [bev, connection] : connections_) bufferevent_decref(bev);
}

// The engine's hook for each accepted connection, before it has its socket.
bufferevent* ConnectionGuard::OnNewConnection(event_base* base, void* self) {
    auto& guard = *static_cast<ConnectionGuard*>(self);
    Connection connection;
    bufferevent* bev = guard.NewBufferEvent(base, connection);
    if (bev == nullptr) return nullptr;
    bufferevent_incref(bev);  // outlives the engine's use, so that its end can be seen
    connection.deadline = Clock::now() + guard.limits_.headerTimeout;
    if (connection.proxy) connection.proxy->top = bev;
    guard.connections_.emplace(bev, std::move(connection));
    guard.UpdateAccepting();
    guard.ScheduleSweep(kBusySweepInterval);
    return bev;
}

// With proxies to trust, every connection's first bytes are looked at
// before the HTTP engine or TLS sees them: they arrive in the socket's own
// buffer event, whose reader waits (read watermark) until a whole header
// could be there.
bufferevent* ConnectionGuard::NewBufferEvent(event_base* base, Connection& connection) {
    if (limits_.proxyPeers.empty()) {
        return tls_ != nullptr ? farlink::NewServerTlsBufferEvent(base, tls_)
                               : bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE);
    }
    bufferevent* raw = bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE);
    if (raw == nullptr) return nullptr;
    bufferevent* top = tls_ != nullptr ? farlink::NewServerTlsFilter(base, raw, tls_) : raw;
    if (top == nullptr) {
        bufferevent_free(raw);
        return nullptr;
    }
    connection.proxy.reset(new ProxyWait{this, top, raw});
    connection.proxy->entry = evbuffer_add_cb(bufferevent_get_input(raw),
                                              &ConnectionGuard::OnRawInput, connection.proxy.get());
    bufferevent_setwatermark(raw, EV_READ, kProxyFixedPart, 0);
    return top;
}

void ConnectionGuard::OnRawInput(evbuffer* input, const evbuffer_cb_info* info, void* wait) {
    if (info->n_added == 0) return;
    auto& proxyWait = *static_cast<ProxyWait*>(wait);
    proxyWait.guard->ReadProxyHeader(proxyWait, input);
}

void ConnectionGuard::ReadProxyHeader(ProxyWait& wait, evbuffer* input) {
    auto found = connections_.find(wait.top);
    if (found == connections_.end()) return;
    Connection& connection = found->second;
    const std::size_t size = std::min(evbuffer_get_length(input), kLongestProxyHeader);
    const farlink::ProxyHeader header =
        farlink::ParseProxyHeader(evbuffer_pullup(input, static_cast<ev_ssize_t>(size)), size);
    using Status = farlink::ProxyHeader::Status;
    connection.address = PeerAddress(bufferevent_getfd(wait.raw));
    if (limits_.proxyPeers.count(connection.address) == 0) {
        if (header.status == Status::kMalformed) {  // not a header: the client itself
            EndProxyWait(wait, input);
            connection.proxy.reset();
            return;
        }
        if (header.status == Status::kIncomplete && size < kProxySignature) return;
        if (!untrustedHeaderLogged_) {
            std::fprintf(stderr,
                         "farlink-host: refused a PROXY header from %s, which --proxy-from does "
                         "not name; further ones are refused without a word\n",
                         connection.address.c_str());
            untrustedHeaderLogged_ = true;
        }
        Cut(wait.top, connection);
        return;
    }
    if (header.status == Status::kIncomplete) {
        if (size == kLongestProxyHeader) Cut(wait.top, connection);
        return;
    }
    if (header.status == Status::kMalformed) {
        Cut(wait.top, connection);
        return;
    }
    EndProxyWait(wait, input);
    evbuffer_drain(input, header.length);
    if (header.hasClient) {
        connection.address = AddressText(header.client);
        connection.proxiedClient = ClientText(header.client);
    }
    connection.proxy.reset();
}

void ConnectionGuard::EndProxyWait(ProxyWait& wait, evbuffer* input) {
    evbuffer_remove_cb_entry(input, wait.entry);
    bufferevent_setwatermark(wait.raw, EV_READ, 0, 0);
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
    Connection* connection = Find(request);
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
    if (Connection* connection = Find(request)) {
        connection->busy = false;
        connection->deadline = Clock::now() + limits_.keepAliveTimeout;
    }
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

void ConnectionGuard::ScheduleSweep(std::chrono::milliseconds delay) {
    const Clock::time_point due = Clock::now() + delay;
    if (event_pending(sweepTimer_.get(), EV_TIMEOUT, nullptr) && nextSweep_ <= due) return;
    nextSweep_ = due;
    const timeval wait = ToTimeval(delay);
    event_add(sweepTimer_.get(), &wait);
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
    ScheduleSweep(changed ? kBusySweepInterval : kSweepInterval);
}

// The engine frees a connection's buffer event by clearing its callbacks and
// dropping its reference; ours is then the last.
bool ConnectionGuard::Released(bufferevent* bev, Connection& connection) {
    bufferevent_event_cb eventCallback = nullptr;
    bufferevent_getcb(bev, nullptr, nullptr, &eventCallback, nullptr);
    if (eventCallback != nullptr) return false;
    if (connection.proxy)
        EndProxyWait(*connection.proxy, bufferevent_get_input(connection.proxy->raw));
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
