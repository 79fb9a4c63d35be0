#include "http_server.h"

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <event2/thread.h>
#include <farlink/http_method.h>
#include <fcntl.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "startup_error.h"

namespace farlink::host {

namespace {

struct EventBaseDeleter {
    void operator()(event_base* base) const { event_base_free(base); }
};
struct EvhttpDeleter {
    void operator()(evhttp* http) const { evhttp_free(http); }
};
struct EventDeleter {
    void operator()(event* ev) const { event_free(ev); }
};
using EventBasePtr = std::unique_ptr<event_base, EventBaseDeleter>;
using EvhttpPtr = std::unique_ptr<evhttp, EvhttpDeleter>;
using EventPtr = std::unique_ptr<event, EventDeleter>;

constexpr ev_uint16_t kAllMethods = EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_HEAD |
                                    EVHTTP_REQ_PUT | EVHTTP_REQ_DELETE | EVHTTP_REQ_OPTIONS |
                                    EVHTTP_REQ_TRACE | EVHTTP_REQ_CONNECT | EVHTTP_REQ_PATCH;

std::string Header(evhttp_request* request, const char* name) {
    const char* value = evhttp_find_header(evhttp_request_get_input_headers(request), name);
    return value ? value : "";
}

std::string Peer(evhttp_request* request) {
    char* address = nullptr;
    ev_uint16_t port = 0;
    evhttp_connection_get_peer(evhttp_request_get_connection(request), &address, &port);
    std::string host = address ? address : "?";
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return host + ":" + std::to_string(port);
}

HttpExchange ReadExchange(evhttp_request* request, std::size_t maxBody) {
    HttpExchange exchange;
    exchange.client = Peer(request);
    exchange.method = farlink::HttpMethodName(evhttp_request_get_command(request));
    const evhttp_uri* uri = evhttp_request_get_evhttp_uri(request);
    const char* path = uri ? evhttp_uri_get_path(uri) : nullptr;
    const char* query = uri ? evhttp_uri_get_query(uri) : nullptr;
    exchange.path = path ? path : "";
    exchange.query = query ? query : "";
    exchange.contentType = Header(request, "Content-Type");
    exchange.cookie = Header(request, "Cookie");

    evbuffer* input = evhttp_request_get_input_buffer(request);
    std::size_t length = evbuffer_get_length(input);
    if (length > maxBody) {
        exchange.bodyTooLarge = true;
    } else {
        exchange.body.resize(length);
        evbuffer_copyout(input, exchange.body.data(), length);
    }
    return exchange;
}

// The HTTP engine refuses bodies beyond its own limit with a bare 413 and
// without reading them. It is set above ours so that a body a little too
// large still gets our JSON answer, while a huge one is never buffered.
ev_ssize_t EngineBodyLimit(std::size_t maxBody) {
    constexpr std::size_t kSlack = 64 * 1024;
    return static_cast<ev_ssize_t>(maxBody + std::max(maxBody, kSlack));
}

void UseThreadSafeEventLoops() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (evthread_use_pthreads() != 0) throw StartupError("libevent has no thread support");
    });
}

}  // namespace

class HttpServer::Worker {
public:
    Worker(const HttpHandler& handler, const HttpLimits& limits, int listenFd)
        : handler_(handler), limits_(limits) {
        base_.reset(event_base_new());
        if (base_) http_.reset(evhttp_new(base_.get()));
        if (base_) stopEvent_.reset(event_new(base_.get(), -1, 0, &Worker::OnStop, this));
        if (base_) graceTimer_.reset(evtimer_new(base_.get(), &Worker::OnGraceOver, this));
        if (!http_ || !stopEvent_ || !graceTimer_) throw StartupError("cannot set up libevent");
        ConfigureEngine();
        Accept(listenFd);
    }

    ~Worker() {
        if (thread_.joinable()) thread_.join();
    }

    void Start() {
        thread_ = std::thread([this] { Run(); });
    }

    // From any thread.
    void RequestStop(std::chrono::milliseconds grace) {
        grace_ = grace;
        event_active(stopEvent_.get(), EV_READ, 0);
    }

    // True when the loop has ended by `deadline`; the thread is then joined.
    bool WaitFinished(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(finishedMutex_);
        if (!finishedSignal_.wait_until(lock, deadline, [this] { return finished_; })) {
            return false;
        }
        lock.unlock();
        thread_.join();
        return true;
    }

private:
    void ConfigureEngine() {
        evhttp_set_max_body_size(http_.get(), EngineBodyLimit(limits_.maxBody));
        evhttp_set_max_headers_size(http_.get(), static_cast<ev_ssize_t>(limits_.maxHeaders));
        evhttp_set_timeout(http_.get(), static_cast<int>(limits_.timeout.count()));
        // Every method reaches us, so that a wrong one gets our JSON answer.
        evhttp_set_allowed_methods(http_.get(), kAllMethods);
        // Read the rest of a refused body, so the client sees the answer.
        evhttp_set_flags(http_.get(), EVHTTP_SERVER_LINGERING_CLOSE);
        evhttp_set_gencb(http_.get(), &Worker::OnRequest, this);
    }

    void Accept(int listenFd) {
        UniqueFd copy(fcntl(listenFd, F_DUPFD_CLOEXEC, 0));
        if (!copy) throw StartupError("cannot duplicate the listening socket");
        accepting_ = evhttp_accept_socket_with_handle(http_.get(), copy.Get());
        if (accepting_ == nullptr) throw StartupError("cannot accept on the listening socket");
        copy.Release();  // the engine closes it
    }

    void Run() {
        event_base_dispatch(base_.get());
        {
            std::lock_guard<std::mutex> guard(finishedMutex_);
            finished_ = true;
        }
        finishedSignal_.notify_all();
    }

    static void OnRequest(evhttp_request* request, void* self) {
        auto& worker = *static_cast<Worker*>(self);
        HttpReply reply = worker.handler_(ReadExchange(request, worker.limits_.maxBody));
        worker.Send(request, reply);
    }

    void Send(evhttp_request* request, const HttpReply& reply) {
        evkeyvalq* headers = evhttp_request_get_output_headers(request);
        for (const auto& [name, value] : reply.headers) {
            evhttp_add_header(headers, name.c_str(), value.c_str());
        }
        if (draining_) evhttp_add_header(headers, "Connection", "close");
        evbuffer* body = evhttp_request_get_output_buffer(request);
        evbuffer_add(body, reply.body.data(), reply.body.size());
        ++repliesInFlight_;
        evhttp_request_set_on_complete_cb(request, &Worker::OnReplyWritten, this);
        evhttp_send_reply(request, reply.status, nullptr, nullptr);
    }

    // Not called for a connection that breaks while its reply is written:
    // the count then stays high and the grace timer ends the wait.
    static void OnReplyWritten(evhttp_request*, void* self) {
        auto& worker = *static_cast<Worker*>(self);
        --worker.repliesInFlight_;
        if (worker.draining_ && worker.repliesInFlight_ == 0)
            event_base_loopbreak(worker.base_.get());
    }

    static void OnStop(evutil_socket_t, short, void* self) {
        auto& worker = *static_cast<Worker*>(self);
        if (worker.accepting_ != nullptr) {
            evhttp_del_accept_socket(worker.http_.get(), worker.accepting_);
            worker.accepting_ = nullptr;
        }
        worker.draining_ = true;
        if (worker.repliesInFlight_ == 0) {
            event_base_loopbreak(worker.base_.get());
            return;
        }
        timeval grace = {static_cast<time_t>(worker.grace_.count() / 1000),
                         static_cast<suseconds_t>(worker.grace_.count() % 1000 * 1000)};
        evtimer_add(worker.graceTimer_.get(), &grace);
    }

    static void OnGraceOver(evutil_socket_t, short, void* self) {
        event_base_loopbreak(static_cast<Worker*>(self)->base_.get());
    }

    const HttpHandler& handler_;
    const HttpLimits& limits_;
    // Declared in the order they must be released in reverse.
    EventBasePtr base_;
    EvhttpPtr http_;
    EventPtr stopEvent_;
    EventPtr graceTimer_;
    evhttp_bound_socket* accepting_ = nullptr;  // owned by http_
    std::chrono::milliseconds grace_{0};
    int repliesInFlight_ = 0;
    bool draining_ = false;
    std::mutex finishedMutex_;
    std::condition_variable finishedSignal_;
    bool finished_ = false;
    std::thread thread_;
};

HttpServer::HttpServer(HttpHandler handler, HttpLimits limits)
    : handler_(std::move(handler)), limits_(limits) {}

HttpServer::~HttpServer() {
    for (auto& worker : workers_) worker->RequestStop(std::chrono::milliseconds(0));
}

void HttpServer::Start(const UniqueFd& listener, unsigned threads) {
    UseThreadSafeEventLoops();
    for (unsigned i = 0; i < threads; ++i) {
        workers_.push_back(std::make_unique<Worker>(handler_, limits_, listener.Get()));
    }
    for (auto& worker : workers_) worker->Start();
}

bool HttpServer::Stop(std::chrono::milliseconds grace) {
    for (auto& worker : workers_) worker->RequestStop(grace);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    for (auto& worker : workers_) {
        if (!worker->WaitFinished(deadline)) return false;
    }
    workers_.clear();
    return true;
}

}  // namespace farlink::host
