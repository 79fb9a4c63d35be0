#include "http_front.h"

#include <event2/keyvalq_struct.h>
#include <farlink/http_method.h>
#include <farlink/tls_server.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace farlink {
namespace controlserver {
namespace {

constexpr size_t kMaxBodyBytes = 1 << 20;
// Long enough that a "silent" answer is ended by the client giving up,
// not by the server's idle limit.
constexpr int kConnectionTimeoutSeconds = 600;
constexpr int kListenBacklog = 64;

std::string HostWithoutPort(const char* header) {
    if (header == nullptr) {
        return {};
    }
    std::string host = header;
    if (!host.empty() && host.front() == '[') {
        const size_t close = host.find(']');
        host = close == std::string::npos ? host : host.substr(1, close - 1);
    } else {
        const size_t colon = host.find(':');
        if (colon != std::string::npos && host.find(':', colon + 1) == std::string::npos) {
            host.resize(colon);
        }
    }
    std::transform(host.begin(), host.end(), host.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return host;
}

std::string RequestPath(evhttp_request* request) {
    const evhttp_uri* uri = evhttp_request_get_evhttp_uri(request);
    const char* path = uri != nullptr ? evhttp_uri_get_path(uri) : nullptr;
    return path != nullptr && *path != '\0' ? path : "/";
}

std::string RequestBody(evhttp_request* request) {
    evbuffer* input = evhttp_request_get_input_buffer(request);
    const size_t length = evbuffer_get_length(input);
    std::string body(length, '\0');
    if (length > 0) {
        evbuffer_remove(input, &body[0], length);
    }
    return body;
}

void SendAnswer(evhttp_request* request, int status, const std::string& body) {
    EvbufferPtr buffer(evbuffer_new());
    if (!buffer) {
        evhttp_send_error(request, 500, nullptr);
        return;
    }
    evbuffer_add(buffer.get(), body.data(), body.size());
    evhttp_add_header(evhttp_request_get_output_headers(request), "Content-Type",
                      "application/json");
    evhttp_send_reply(request, status, status == 200 ? "OK" : "Error", buffer.get());
}

// Opens a listening TCP socket. IPv6 sockets are IPv6-only, so that the
// same port can also be bound on an IPv4 address. Accepted connections
// inherit the listener's TCP_NODELAY: a TLS handshake flight or an answer is written as
// several small records, and with Nagle's algorithm each later one waited
// for the client's delayed acknowledgement (40 ms a time).
UniqueFd OpenListener(const std::string& address, int port, int& boundPort, std::string& error) {
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    const int status = getaddrinfo(address.c_str(), service.c_str(), &hints, &found);
    if (status != 0) {
        error = address + ": " + gai_strerror(status);
        return UniqueFd();
    }
    const std::unique_ptr<addrinfo, FreeWith<addrinfo, freeaddrinfo>> owned(found);

    UniqueFd fd(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (fd.Get() < 0 || setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
        (found->ai_family == AF_INET6 &&
         setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) ||
        bind(fd.Get(), found->ai_addr, found->ai_addrlen) != 0 ||
        listen(fd.Get(), kListenBacklog) != 0) {
        error = address + " port " + service + ": " + std::strerror(errno);
        return UniqueFd();
    }
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&bound), &length);
    boundPort =
        ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                          : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    return fd;
}

bool Accept(evhttp* http, UniqueFd fd, std::string& error) {
    if (evhttp_accept_socket_with_handle(http, fd.Get()) == nullptr) {
        error = "cannot accept on the listening socket";
        return false;
    }
    fd.Release();  // the listener owns it now
    return true;
}

}  // namespace

HttpFront::HttpFront(event_base* base, ControlState& state, SSL_CTX* tls)
    : base_(base), state_(state), tls_(tls) {}

HttpFront::~HttpFront() {
    ReleasePending();
    // Freeing the servers closes their connections, which calls back into
    // this object; do it while the members still exist.
    https_.reset();
    http_.reset();
    control_.reset();
}

EvhttpPtr HttpFront::NewServiceHttp(Endpoint& endpoint, bool https) {
    EvhttpPtr http(evhttp_new(base_));
    if (!http) {
        return http;
    }
    evhttp_set_gencb(http.get(), OnServiceRequest, &endpoint);
    evhttp_set_max_body_size(http.get(), kMaxBodyBytes);
    evhttp_set_timeout(http.get(), kConnectionTimeoutSeconds);
    if (https) {
        evhttp_set_bevcb(http.get(), NewTlsBufferevent, this);
    }
    return http;
}

bool HttpFront::ListenService(bool https, const std::vector<std::string>& addresses, int& port,
                              std::vector<std::string>& warnings, std::string& error) {
    EvhttpPtr& http = https ? https_ : http_;
    http = NewServiceHttp(https ? httpsEndpoint_ : httpEndpoint_, https);
    if (!http) {
        error = "cannot create the HTTP server";
        return false;
    }
    bool anyBound = false;
    for (const std::string& address : addresses) {
        std::string failure;
        int bound = 0;
        UniqueFd fd = OpenListener(address, port, bound, failure);
        if (fd.Get() < 0 || !Accept(http.get(), std::move(fd), failure)) {
            warnings.push_back(failure);
            continue;
        }
        port = bound;
        anyBound = true;
    }
    if (!anyBound) {
        error = std::string(https ? "https" : "http") + ": no address could be bound";
    }
    return anyBound;
}

bool HttpFront::ListenControl(const std::string& address, int& port, std::string& error) {
    control_.reset(evhttp_new(base_));
    if (!control_) {
        error = "cannot create the control server";
        return false;
    }
    evhttp_set_gencb(control_.get(), OnControlRequest, this);
    evhttp_set_max_body_size(control_.get(), kMaxBodyBytes);
    int bound = 0;
    UniqueFd fd = OpenListener(address, port, bound, error);
    if (fd.Get() < 0 || !Accept(control_.get(), std::move(fd), error)) {
        return false;
    }
    port = bound;
    return true;
}

bufferevent* HttpFront::NewTlsBufferevent(event_base* base, void* front) {
    return farlink::NewServerTlsBufferEvent(base, static_cast<HttpFront*>(front)->tls_);
}

void HttpFront::OnServiceRequest(evhttp_request* request, void* endpoint) {
    const auto* where = static_cast<Endpoint*>(endpoint);
    IncomingRequest incoming;
    incoming.host =
        HostWithoutPort(evhttp_find_header(evhttp_request_get_input_headers(request), "Host"));
    incoming.scheme = where->scheme;
    incoming.method = farlink::HttpMethodName(evhttp_request_get_command(request));
    incoming.path = RequestPath(request);
    incoming.body = RequestBody(request);

    Reply reply = where->front->state_.Serve(incoming);
    if (reply.kind == Reply::Kind::kAnswer && reply.delayMs == 0) {
        SendAnswer(request, 200, reply.body);
        return;
    }
    where->front->Defer(request, std::move(reply));
}

void HttpFront::OnControlRequest(evhttp_request* request, void* front) {
    const ControlReply reply = static_cast<HttpFront*>(front)->state_.Control(
        farlink::HttpMethodName(evhttp_request_get_command(request)), RequestPath(request),
        RequestBody(request));
    SendAnswer(request, reply.status, reply.body);
}

void HttpFront::Defer(evhttp_request* request, Reply reply) {
    evhttp_connection* connection = evhttp_request_get_connection(request);
    auto pending =
        std::make_unique<Pending>(Pending{this, request, connection, std::move(reply), nullptr});
    if (pending->reply.kind != Reply::Kind::kSilent) {
        // Closing happens from the loop, not inside the request callback
        // that libevent is still running for this connection.
        pending->timer.reset(evtimer_new(base_, OnPendingTimer, pending.get()));
        const int delayMs = pending->reply.delayMs;
        const timeval delay{delayMs / 1000, (delayMs % 1000) * 1000};
        if (!pending->timer || evtimer_add(pending->timer.get(), &delay) != 0) {
            evhttp_send_error(request, 500, nullptr);
            return;
        }
    }
    evhttp_connection_set_closecb(connection, OnConnectionClosed, this);
    pending_[connection] = std::move(pending);
}

void HttpFront::OnPendingTimer(evutil_socket_t, short, void* pendingArg) {
    auto* pending = static_cast<Pending*>(pendingArg);
    HttpFront* front = pending->front;
    evhttp_request* request = pending->request;
    evhttp_connection* connection = pending->connection;
    const Reply reply = pending->reply;
    front->pending_.erase(connection);  // frees `pending` and its timer

    if (reply.kind == Reply::Kind::kClose) {
        evhttp_connection_free(connection);
    } else {
        SendAnswer(request, 200, reply.body);
    }
}

void HttpFront::OnConnectionClosed(evhttp_connection* connection, void* frontArg) {
    auto* front = static_cast<HttpFront*>(frontArg);
    const auto found = front->pending_.find(connection);
    if (found == front->pending_.end()) {
        return;
    }
    evhttp_request* request = found->second->request;
    front->pending_.erase(found);
    // When the client went away first, libevent has already detached the
    // unanswered request from the connection and left it to us; otherwise
    // the connection frees it right after this call.
    if (evhttp_request_get_connection(request) == nullptr) {
        evhttp_request_free(request);
    }
}

void HttpFront::ReleasePending() {
    for (auto& entry : pending_) {
        if (evhttp_request_get_connection(entry.second->request) == nullptr) {
            evhttp_request_free(entry.second->request);
        }
    }
    pending_.clear();
}

}  // namespace controlserver
}  // namespace farlink
