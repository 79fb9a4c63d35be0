// farlink-box-forward: accepts connections on a listening socket that it is
// handed (the one the launcher bound in the machine's network namespace) and
// joins each to a fresh connection to ADDR:PORT inside the box. So the host's
// URL is the same inside and outside the box. With --proxy-from, each
// connection to the target comes from SOURCE and starts with a PROXY header
// naming the outside client, so that the host can tell clients apart (and
// tell the forwarder from clients inside the box, which come from elsewhere).
//
//   farlink-box-forward --listen-fd N --to ADDR:PORT [--proxy-from SOURCE]
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <farlink/event_handles.h>
#include <farlink/proxy_header.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "socket_address.h"

namespace {

using farlink::box::ParseSocketAddress;
using farlink::box::SocketAddress;

using farlink::EventBasePtr;
using farlink::FreeWith;
using BuffereventPtr = std::unique_ptr<bufferevent, FreeWith<bufferevent, bufferevent_free>>;

class Forwarder;

// One client connection and its twin towards the target. When either side
// ends, what the other still has to write is flushed before both close.
class Link {
public:
    Link(Forwarder& owner, BuffereventPtr client, BuffereventPtr target);
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

private:
    static void OnRead(bufferevent* from, void* self);
    static void OnEvent(bufferevent* side, short what, void* self);
    static void OnFlushed(bufferevent* side, void* self);

    bufferevent* Other(bufferevent* side) const {
        return side == client_.get() ? target_.get() : client_.get();
    }
    void CloseWhenFlushed(bufferevent* side);

    Forwarder& owner_;
    BuffereventPtr client_;
    BuffereventPtr target_;
};

class Forwarder {
public:
    Forwarder(event_base* base, SocketAddress target, std::optional<SocketAddress> proxyFrom)
        : base_(base), target_(target), proxyFrom_(proxyFrom) {}

    static void OnAccept(evconnlistener*, evutil_socket_t fd, sockaddr* client, int, void* self) {
        static_cast<Forwarder*>(self)->Accept(fd, *client);
    }
    void Close(Link* link) { links_.erase(link); }

private:
    void Accept(evutil_socket_t fd, const sockaddr& clientAddress) {
        BuffereventPtr client(bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE));
        BuffereventPtr target(
            bufferevent_socket_new(base_, ConnectingSocket(), BEV_OPT_CLOSE_ON_FREE));
        if (!client || !target ||
            bufferevent_socket_connect(target.get(), target_.Get(),
                                       static_cast<int>(target_.length)) != 0) {
            std::fprintf(stderr, "farlink-box-forward: cannot reach the target\n");
            return;
        }
        if (proxyFrom_) {
            const SocketAddress server = LocalAddress(fd);
            const std::string header = farlink::EncodeProxyHeader(clientAddress, *server.Get());
            bufferevent_write(target.get(), header.data(), header.size());
        }
        auto link = std::make_unique<Link>(*this, std::move(client), std::move(target));
        Link* key = link.get();
        links_.emplace(key, std::move(link));
    }

    // A socket bound to the proxy source, or -1 to let libevent make one.
    evutil_socket_t ConnectingSocket() const {
        if (!proxyFrom_) return -1;
        const int fd = socket(proxyFrom_->Family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd >= 0 && bind(fd, proxyFrom_->Get(), proxyFrom_->length) != 0) {
            std::perror("farlink-box-forward: cannot bind the proxy source");
        }
        return fd;
    }

    static SocketAddress LocalAddress(int fd) {
        SocketAddress local;
        local.length = sizeof local.storage;
        getsockname(fd, reinterpret_cast<sockaddr*>(&local.storage), &local.length);
        return local;
    }

    event_base* base_;
    SocketAddress target_;
    std::optional<SocketAddress> proxyFrom_;
    std::map<Link*, std::unique_ptr<Link>> links_;
};

Link::Link(Forwarder& owner, BuffereventPtr client, BuffereventPtr target)
    : owner_(owner), client_(std::move(client)), target_(std::move(target)) {
    for (bufferevent* side : {client_.get(), target_.get()}) {
        bufferevent_setcb(side, OnRead, nullptr, OnEvent, this);
        bufferevent_enable(side, EV_READ | EV_WRITE);
    }
}

void Link::OnRead(bufferevent* from, void* self) {
    auto* link = static_cast<Link*>(self);
    bufferevent_write_buffer(link->Other(from), bufferevent_get_input(from));
}

void Link::OnEvent(bufferevent* side, short what, void* self) {
    if ((what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0) return;
    auto* link = static_cast<Link*>(self);
    OnRead(side, self);  // pass on what arrived with the end
    link->CloseWhenFlushed(link->Other(side));
}

void Link::CloseWhenFlushed(bufferevent* side) {
    if (evbuffer_get_length(bufferevent_get_output(side)) == 0) {
        owner_.Close(this);
        return;
    }
    bufferevent_setcb(side, nullptr, OnFlushed, OnEvent, this);
    bufferevent_disable(side, EV_READ);
    bufferevent_disable(Other(side), EV_READ | EV_WRITE);
}

void Link::OnFlushed(bufferevent* side, void* self) {
    if (evbuffer_get_length(bufferevent_get_output(side)) == 0)
        static_cast<Link*>(self)->owner_.Close(static_cast<Link*>(self));
}

}  // namespace

int main(int argc, char** argv) {
    const bool proxied = argc == 7 && std::strcmp(argv[5], "--proxy-from") == 0;
    if ((argc != 5 && !proxied) || std::strcmp(argv[1], "--listen-fd") != 0 ||
        std::strcmp(argv[3], "--to") != 0) {
        std::fputs("usage: farlink-box-forward --listen-fd N --to ADDR:PORT [--proxy-from ADDR]\n",
                   stderr);
        return 2;
    }
    const auto target = ParseSocketAddress(argv[4]);
    const auto proxyFrom =
        proxied ? ParseSocketAddress(std::string(argv[6]) + ":0") : std::optional<SocketAddress>();
    if (!target || (proxied && !proxyFrom)) {
        std::fprintf(stderr, "farlink-box-forward: not a numeric address: %s\n",
                     target ? argv[6] : argv[4]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const int listenFd = std::atoi(argv[2]);
    // Handed over blocking; the listener must never block the loop in accept.
    evutil_make_socket_nonblocking(listenFd);
    EventBasePtr base(event_base_new());
    Forwarder forwarder(base.get(), *target, proxyFrom);
    std::unique_ptr<evconnlistener, FreeWith<evconnlistener, evconnlistener_free>> listener(
        evconnlistener_new(base.get(), Forwarder::OnAccept, &forwarder,
                           LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, listenFd));
    if (!listener) {
        std::fprintf(stderr, "farlink-box-forward: fd %s is not a listening socket\n", argv[2]);
        return 1;
    }
    event_base_dispatch(base.get());
    return 0;
}
