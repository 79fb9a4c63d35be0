#include "connection_guard.h"

#include <arpa/inet.h>
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

std::string PeerAddress(int fd) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (fd < 0 || getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return "?";
    char text[INET6_ADDRSTRLEN] = "?";
    if (peer.ss_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in&>(peer).sin_addr, text, sizeof text);
    } else if (peer.ss_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6&>(peer).sin6_addr, text, sizeof text);
    }
    return text;
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
    guard.UpdateAccepting();
    guard.ScheduleSweep(Clock::now() + kBusySweepInterval);
    return bev;
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
void ConnectionGuard::Closing(evhttp_connection*) { ScheduleSweep(Clock::now()); }

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
    if (!connection.address.empty()) {
        auto count = perAddress_.find(connection.address);
        if (count != perAddress_.end() && --count->second == 0) perAddress_.erase(count);
    }
    bufferevent_decref(bev);
    return true;
}

bool ConnectionGuard::Check(bufferevent* bev, Connection& connection, Clock::time_point now) {
    if (connection.cut) return false;
    if (connection.address.empty()) {
        connection.address = PeerAddress(bufferevent_getfd(bev));
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
