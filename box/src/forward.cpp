// farlink-box-forward: accepts connections on a listening socket that it is
// handed (the one the launcher bound in the machine's network namespace) and
// joins each to a fresh connection to ADDR:PORT inside the box. So the host's
// URL is the same inside and outside the box. Each connection into the box
// comes from its client's own address (every loopback address is local in
// the box too), so that the host tells outside clients apart as it would
// without the forwarder: one client's failed logins or connections are not
// another's.
//
//   farlink-box-forward --listen-fd N --to ADDR:PORT
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "socket_address.h"

namespace {

using farlink::box::ParseSocketAddress;
using farlink::box::SocketAddress;

struct EventBaseFree {
    void operator()(event_base* base) const { event_base_free(base); }
};
struct ListenerFree {
    void operator()(evconnlistener* listener) const { evconnlistener_free(listener); }
};
struct BuffereventFree {
    void operator()(bufferevent* event) const { bufferevent_free(event); }
};
using BuffereventPtr = std::unique_ptr<bufferevent, BuffereventFree>;

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
    Forwarder(event_base* base, SocketAddress target) : base_(base), target_(target) {}

    static void OnAccept(evconnlistener*, evutil_socket_t fd, sockaddr* client, int, void* self) {
        static_cast<Forwarder*>(self)->Accept(fd, *client);
    }
    void Close(Link* link) { links_.erase(link); }

private:
    void Accept(evutil_socket_t fd, const sockaddr& clientAddress) {
        BuffereventPtr client(bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE));
        BuffereventPtr target(
            bufferevent_socket_new(base_, SocketFrom(clientAddress), BEV_OPT_CLOSE_ON_FREE));
        if (!client || !target ||
            bufferevent_socket_connect(target.get(), target_.Get(),
                                       static_cast<int>(target_.length)) != 0) {
            std::fprintf(stderr, "farlink-box-forward: cannot reach the target\n");
            return;
        }
        auto link = std::make_unique<Link>(*this, std::move(client), std::move(target));
        Link* key = link.get();
        links_.emplace(key, std::move(link));
    }

    // A socket bound to the client's address (any port), or -1 to let
    // libevent make an unbound one where that address is not local here.
    evutil_socket_t SocketFrom(const sockaddr& clientAddress) const {
        if (clientAddress.sa_family != target_.Family()) return -1;
        SocketAddress source;
        source.length = target_.length;
        std::memcpy(&source.storage, &clientAddress, source.length);
        if (source.Family() == AF_INET) {
            reinterpret_cast<sockaddr_in&>(source.storage).sin_port = 0;
        } else {
            reinterpret_cast<sockaddr_in6&>(source.storage).sin6_port = 0;
        }
        const int fd = socket(source.Family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd >= 0 && bind(fd, source.Get(), source.length) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    event_base* base_;
    SocketAddress target_;
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
    if (argc != 5 || std::strcmp(argv[1], "--listen-fd") != 0 ||
        std::strcmp(argv[3], "--to") != 0) {
        std::fputs("usage: farlink-box-forward --listen-fd N --to ADDR:PORT\n", stderr);
        return 2;
    }
    const auto target = ParseSocketAddress(argv[4]);
    if (!target) {
        std::fprintf(stderr, "farlink-box-forward: not a numeric ADDR:PORT: %s\n", argv[4]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const int listenFd = std::atoi(argv[2]);
    // Handed over blocking; the listener must never block the loop in accept.
    evutil_make_socket_nonblocking(listenFd);
    std::unique_ptr<event_base, EventBaseFree> base(event_base_new());
    Forwarder forwarder(base.get(), *target);
    std::unique_ptr<evconnlistener, ListenerFree> listener(
        evconnlistener_new(base.get(), Forwarder::OnAccept, &forwarder,
                           LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, listenFd));
    if (!listener) {
        std::fprintf(stderr, "farlink-box-forward: fd %s is not a listening socket\n", argv[2]);
        return 1;
    }
    event_base_dispatch(base.get());
    return 0;
}
