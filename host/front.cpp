#include "front.h"

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <farlink/file_io.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>

#include "channel.h"
#include "connection_guard.h"
#include "control.h"
#include "event_time.h"
#include "login_throttle.h"
#include "reply_headers.h"
#include "router.h"
#include "sessions.h"
#include "static_files.h"

namespace farlink::host {

namespace {

using Clock = std::chrono::steady_clock;

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

// Requests in flight get this long to finish once the front is told to stop.
constexpr std::chrono::seconds kShutdownGrace{10};
constexpr int kServiceUnavailable = 503;

constexpr ev_uint16_t kAllMethods = EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_HEAD |
                                    EVHTTP_REQ_PUT | EVHTTP_REQ_DELETE | EVHTTP_REQ_OPTIONS |
                                    EVHTTP_REQ_TRACE | EVHTTP_REQ_CONNECT | EVHTTP_REQ_PATCH;

// The HTTP engine refuses bodies beyond its own limit with a bare 413 and
// without reading them. It is set above ours so that a body a little too
// large still gets our JSON answer, while a huge one is never buffered.
ev_ssize_t EngineBodyLimit(std::size_t maxBody) {
    constexpr std::size_t kSlack = 64 * 1024;
    return static_cast<ev_ssize_t>(maxBody + std::max(maxBody, kSlack));
}

Router::Answer HostFailure(int status, HostError error, const std::string& call,
                           const std::string& detail = "") {
    Router::Answer answer{status, ApiService::Failure(error)};
    answer.api.call = call;
    if (!detail.empty()) answer.api.result += "," + detail;
    return answer;
}

class Front : public HostState {
public:
    explicit Front(FrontSetup& setup)
        : options_(*setup.options),
          log_(std::move(setup.accessLog)),
          sessions_(SessionLimitsOf(options_)),
          table_(ApiTable::FromNames(setup.rows)),
          metrics_(setup.rows),
          audit_(std::move(setup.auditLog)),
          names_(AddressOf(setup.listenAddress), options_.allowedHosts),
          service_(table_, sessions_, throttle_, options_.password),
          router_(service_, log_, setup.tls != nullptr, {metrics_, audit_, names_, *this}),
          pages_(options_.webRoot.empty() ? StaticFiles() : StaticFiles(options_.webRoot)),
          control_(std::move(setup.control)),
          tls_(std::move(setup.tls)) {
        base_.reset(event_base_new());
        if (!base_) Fail("cannot set up libevent");
        http_.reset(evhttp_new(base_.get()));
        controlEvent_.reset(
            event_new(base_.get(), control_.Get(), EV_READ | EV_PERSIST, &Front::OnControl, this));
        stopEvents_[0].reset(evsignal_new(base_.get(), SIGTERM, &Front::OnStopSignal, this));
        stopEvents_[1].reset(evsignal_new(base_.get(), SIGINT, &Front::OnStopSignal, this));
        graceTimer_.reset(evtimer_new(base_.get(), &Front::OnGraceOver, this));
        if (!http_ || !controlEvent_ || !stopEvents_[0] || !stopEvents_[1] || !graceTimer_) {
            Fail("cannot set up libevent");
        }
        event_add(controlEvent_.get(), nullptr);
        event_add(stopEvents_[0].get(), nullptr);
        event_add(stopEvents_[1].get(), nullptr);
        ConfigureEngine();
        guard_ =
            std::make_unique<ConnectionGuard>(base_.get(), http_.get(), std::move(setup.listener),
                                              ConnectionLimitsOf(options_), tls_.get());
        for (WorkerLink& link : setup.workers) AddWorker(std::move(link));
    }

    // Connections still open call back into the front when the engine
    // frees them.
    ~Front() override {
        for (auto& pending : pending_) {
            if (pending->request == nullptr) continue;
            evhttp_connection_set_closecb(evhttp_request_get_connection(pending->request), nullptr,
                                          nullptr);
        }
    }
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    bool SignalReady() {
        ControlMessage ready;
        ready.kind = ControlKind::kFrontReady;
        return SendControl(control_.Get(), ready);
    }

    int Run() {
        event_base_dispatch(base_.get());
        return exitCode_;
    }

    bool CanServe() const override {
        return !draining_ && queue_.size() < options_.queueLimit &&
               std::any_of(workers_.begin(), workers_.end(),
                           [](const auto& entry) { return !entry.second->killed; });
    }
    std::size_t QueueDepth() const override { return queue_.size(); }

private:
    struct Worker;

    // A request that needs a worker: waiting in the queue or running.
    struct Pending {
        Front* front = nullptr;
        evhttp_request* request = nullptr;  // null once answered or the client left
        HttpExchange exchange;              // without its body
        std::string call;
        std::string frame;
        bool exclusive = false;  // changes state: one at a time, and audited
        std::optional<AuditedCall> audit;
        Clock::time_point started;
        Worker* worker = nullptr;  // null while queued
    };

    // Frames to a worker are written whole with blocking writes: the worker
    // is idle and reading when it is sent one, so the write cannot stall.
    struct Worker {
        Front* front = nullptr;
        std::uint32_t id = 0;
        pid_t pid = 0;
        UniqueFd channel;
        std::string input;  // what it sent that is not yet a whole frame
        EventPtr readable;
        EventPtr deadline;
        Pending* running = nullptr;
        bool killed = false;  // overran its time or ended: it takes no more work
    };

    [[noreturn]] static void Fail(const char* what) {
        std::fprintf(stderr, "farlink-host: front: %s\n", what);
        std::fflush(nullptr);
        _exit(EXIT_FAILURE);
    }

    static ConnectionLimits ConnectionLimitsOf(const Options& options) {
        ConnectionLimits limits;
        limits.maxConnections = options.maxConnections;
        limits.perAddress = options.maxConnectionsPerAddress;
        limits.unlimitedAddresses = {options.unlimitedAddresses.begin(),
                                     options.unlimitedAddresses.end()};
        limits.headerTimeout = options.headerTimeout;
        limits.keepAliveTimeout = options.keepAliveTimeout;
        return limits;
    }

    static SessionLimits SessionLimitsOf(const Options& options) {
        return {options.sessionIdleTimeout, options.sessionLifetime, options.maxSessions};
    }

    void ConfigureEngine() {
        evhttp_set_max_body_size(http_.get(), EngineBodyLimit(options_.maxBody));
        evhttp_set_max_headers_size(http_.get(), 64 * 1024);
        evhttp_set_timeout(http_.get(), static_cast<int>(options_.requestTimeout.count()));
        // Every method reaches us, so that a wrong one gets our JSON answer.
        evhttp_set_allowed_methods(http_.get(), kAllMethods);
        // Read the rest of a refused body, so the client sees the answer.
        evhttp_set_flags(http_.get(), EVHTTP_SERVER_LINGERING_CLOSE);
        evhttp_set_gencb(http_.get(), &Front::OnRequest, this);
    }

    // --- requests ---------------------------------------------------------

    static void OnRequest(evhttp_request* request, void* self) {
        static_cast<Front*>(self)->Handle(request);
    }

    void Handle(evhttp_request* request) {
        const Clock::time_point started = Clock::now();
        guard_->RequestArrived(request);
        HttpExchange exchange = ReadExchange(request, options_.maxBody);
        // A foreign Host goes on to the router, which refuses it.
        if (names_.Allows(exchange.host) && StaticFiles::Claims(exchange.method, exchange.path)) {
            if (std::optional<StaticFile> file = pages_.Find(exchange.path)) {
                SendFile(request, exchange, std::move(*file), started);
                return;
            }
        }
        auto decided = router_.Decide(exchange);
        if (auto* answer = std::get_if<Router::Answer>(&decided)) {
            Send(request, router_.Finish(exchange, *answer, "ids-ok", started));
            return;
        }
        auto& call = std::get<HandlerCall>(decided);
        if (queue_.size() >= options_.queueLimit) {
            Send(request,
                 router_.Finish(exchange,
                                HostFailure(kServiceUnavailable, HostError::kBusy, call.Label()),
                                "ids-ok", started));
            return;
        }
        exchange.body.clear();
        pending_.push_back(std::make_unique<Pending>());
        Pending& pending = *pending_.back();
        pending.front = this;
        pending.request = request;
        pending.exchange = std::move(exchange);
        pending.call = call.Label();
        pending.frame = EncodeFrame(CallMessage(call));
        pending.exclusive = IsExclusiveMethod(options_, call.method);
        if (pending.exclusive) {
            pending.audit = AuditedCall{pending.exchange.address,
                                        call.session,
                                        call.api,
                                        call.version,
                                        call.method,
                                        call.params,
                                        ""};
        }
        pending.started = started;
        evhttp_connection_set_closecb(evhttp_request_get_connection(request), &Front::OnClientGone,
                                      &pending);
        queue_.push_back(&pending);
        Pump();
    }

    // The client closed its connection before its answer. A queued request
    // is dropped; a running one finishes and its answer is discarded.
    static void OnClientGone(evhttp_connection*, void* context) {
        auto& pending = *static_cast<Pending*>(context);
        pending.request = nullptr;
        if (pending.worker == nullptr) pending.front->DropQueued(pending);
    }

    void DropQueued(Pending& pending) {
        queue_.erase(std::find(queue_.begin(), queue_.end(), &pending));
        Forget(pending);
    }

    // Every answer the front makes leaves through here.
    void Send(evhttp_request* request, const HttpReply& reply) {
        evhttp_connection_set_closecb(evhttp_request_get_connection(request), nullptr, nullptr);
        guard_->Answered(request);
        evkeyvalq* headers = evhttp_request_get_output_headers(request);
        evhttp_add_header(headers, "Content-Type", reply.contentType.c_str());
        for (const HeaderList& list : {SafeHeaders(reply.contentType), reply.headers}) {
            for (const auto& [name, value] : list) {
                evhttp_add_header(headers, name.c_str(), value.c_str());
            }
        }
        if (draining_) evhttp_add_header(headers, "Connection", "close");
        evbuffer* body = evhttp_request_get_output_buffer(request);
        evbuffer_add(body, reply.body.data(), reply.body.size());
        ++repliesInFlight_;
        evhttp_request_set_on_complete_cb(request, &Front::OnReplyWritten, this);
        evhttp_send_reply(request, reply.status, nullptr, nullptr);
    }

    // The admin page's files need no session: they hold nothing of the box.
    void SendFile(evhttp_request* request, const HttpExchange& exchange, StaticFile file,
                  Clock::time_point started) {
        log_.Write({exchange.client, exchange.method, exchange.path, file.status, "-", "ok",
                    std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started),
                    "ids-ok", 0});
        HttpReply reply;
        reply.status = file.status;
        reply.body = std::move(file.body);
        reply.contentType = std::move(file.contentType);
        Send(request, reply);
    }

    // Not called for a connection that breaks while its reply is written:
    // the count then stays high and the grace timer ends the wait.
    static void OnReplyWritten(evhttp_request*, void* self) {
        auto& front = *static_cast<Front*>(self);
        --front.repliesInFlight_;
        front.StopIfDrained();
    }

    // Also for a client that has left: the change may have happened.
    void Answer(Pending& pending, const Router::Answer& answer, const std::string& ids) {
        if (pending.audit) {
            pending.audit->result = answer.api.result;
            audit_.RecordCall(*pending.audit);
            pending.audit.reset();
        }
        if (pending.request == nullptr) return;
        Send(pending.request, router_.Finish(pending.exchange, answer, ids, pending.started));
        pending.request = nullptr;
    }

    void Forget(Pending& pending) {
        for (auto it = pending_.begin(); it != pending_.end(); ++it) {
            if (it->get() == &pending) {
                pending_.erase(it);
                break;
            }
        }
        StopIfDrained();
    }

    // --- workers ----------------------------------------------------------

    void AddWorker(WorkerLink link) {
        auto worker = std::make_unique<Worker>();
        worker->front = this;
        worker->id = link.id;
        worker->pid = link.pid;
        worker->channel = std::move(link.channel);
        worker->readable.reset(event_new(base_.get(), worker->channel.Get(), EV_READ | EV_PERSIST,
                                         &Front::OnWorkerReadable, worker.get()));
        worker->deadline.reset(evtimer_new(base_.get(), &Front::OnDeadline, worker.get()));
        if (!worker->readable || !worker->deadline) Fail("cannot watch a worker");
        event_add(worker->readable.get(), nullptr);
        workers_[link.id] = std::move(worker);
        metrics_.CountWorkerStart();
        Pump();
    }

    Worker* IdleWorker() {
        for (auto& [id, worker] : workers_) {
            if (worker->running == nullptr && !worker->killed) return worker.get();
        }
        return nullptr;
    }

    // Starts what can start: queued requests in arrival order, each
    // exclusive one only while no other exclusive one runs.
    void Pump() {
        for (auto it = queue_.begin(); it != queue_.end();) {
            Pending& pending = **it;
            if (pending.exclusive && exclusiveRunning_) {
                ++it;
                continue;
            }
            Worker* worker = IdleWorker();
            if (worker == nullptr) return;
            it = queue_.erase(it);
            Dispatch(*worker, pending);
        }
    }

    void Dispatch(Worker& worker, Pending& pending) {
        worker.running = &pending;
        pending.worker = &worker;
        if (pending.exclusive) exclusiveRunning_ = true;
        // A worker that died meanwhile is reported by the supervisor.
        (void)WriteAll(worker.channel.Get(), pending.frame.data(), pending.frame.size());
        pending.frame.clear();
        pending.frame.shrink_to_fit();
        const timeval limit = ToTimeval(options_.handlerTimeout);
        evtimer_add(worker.deadline.get(), &limit);
    }

    // The running request of `worker` is over, one way or another.
    void Release(Worker& worker) {
        Pending* pending = worker.running;
        worker.running = nullptr;
        evtimer_del(worker.deadline.get());
        if (pending == nullptr) return;
        if (pending->exclusive) exclusiveRunning_ = false;
        Forget(*pending);
    }

    static void OnWorkerReadable(evutil_socket_t, short, void* context) {
        auto& worker = *static_cast<Worker*>(context);
        worker.front->ReadAnswers(worker);
    }

    // Takes what the worker has sent; at its end of file the supervisor's
    // notice of its end finishes the work.
    void ReadAnswers(Worker& worker) {
        char buffer[64 * 1024];
        for (;;) {
            const ssize_t got = recv(worker.channel.Get(), buffer, sizeof buffer, MSG_DONTWAIT);
            if (got > 0) {
                worker.input.append(buffer, static_cast<std::size_t>(got));
                // Less than asked for: nothing more is waiting now, and the
                // event fires again if more comes.
                if (static_cast<std::size_t>(got) < sizeof buffer) break;
                continue;
            }
            if (got < 0 && errno == EINTR) continue;
            if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                event_del(worker.readable.get());
            }
            break;
        }
        TakeAnswers(worker);
    }

    void TakeAnswers(Worker& worker) {
        std::size_t used = 0;
        while (worker.input.size() - used >= kFrameHeaderSize) {
            const auto* header = reinterpret_cast<const unsigned char*>(worker.input.data() + used);
            const std::uint32_t size = FrameLength(header);
            if (worker.input.size() - used - kFrameHeaderSize < size) break;
            std::optional<WorkerAnswer> answer =
                ParseAnswer(worker.input.data() + used + kFrameHeaderSize, size);
            used += kFrameHeaderSize + size;
            if (!answer || worker.running == nullptr) {
                std::fprintf(stderr, "farlink-host: worker %d sent an unexpected message\n",
                             static_cast<int>(worker.pid));
                worker.input.clear();
                Kill(worker);
                return;
            }
            Answer(*worker.running, Router::Answer{200, std::move(answer->reply)}, answer->ids);
            Release(worker);
        }
        worker.input.erase(0, used);
        Pump();
    }

    static void OnDeadline(evutil_socket_t, short, void* context) {
        auto& worker = *static_cast<Worker*>(context);
        Front& front = *worker.front;
        if (worker.running != nullptr) {
            front.metrics_.CountHandlerTimeout();
            front.Answer(
                *worker.running,
                HostFailure(200, HostError::kHandlerTimeout, worker.running->call, "killed"), "-");
        }
        front.Kill(worker);
    }

    void Kill(Worker& worker) {
        worker.killed = true;
        ControlMessage message;
        message.kind = ControlKind::kKillWorker;
        message.worker = worker.id;
        message.pid = worker.pid;
        if (!SendControl(control_.Get(), message)) Fail("lost the supervisor");
    }

    void WorkerExited(std::uint32_t id, int status) {
        auto found = workers_.find(id);
        if (found == workers_.end()) return;
        Worker& worker = *found->second;
        worker.killed = true;  // no new work for it
        // What it wrote before it ended is still to be read.
        ReadAnswers(worker);
        if (worker.running != nullptr) {
            std::fprintf(stderr, "farlink-host: worker %d ended (%s) during %s\n",
                         static_cast<int>(worker.pid), DescribeEnd(status).c_str(),
                         worker.running->call.c_str());
            metrics_.CountWorkerCrash();
            Answer(
                *worker.running,
                HostFailure(200, HostError::kWorkerDied, worker.running->call, DescribeEnd(status)),
                "-");
        }
        Release(worker);
        workers_.erase(found);
        Pump();
    }

    // --- the supervisor and stopping --------------------------------------

    static void OnControl(evutil_socket_t, short, void* self) {
        auto& front = *static_cast<Front*>(self);
        UniqueFd passed;
        std::optional<ControlMessage> message = ReceiveControl(front.control_.Get(), passed);
        if (!message) Fail("lost the supervisor");
        if (message->kind == ControlKind::kWorkerAdded && passed) {
            front.AddWorker({message->worker, message->pid, std::move(passed)});
        } else if (message->kind == ControlKind::kWorkerExited) {
            front.WorkerExited(message->worker, message->status);
        }
    }

    static void OnStopSignal(evutil_socket_t, short, void* self) {
        auto& front = *static_cast<Front*>(self);
        if (front.draining_) return;
        front.draining_ = true;
        front.guard_->StopAccepting();
        const timeval grace = ToTimeval(kShutdownGrace);
        evtimer_add(front.graceTimer_.get(), &grace);
        front.StopIfDrained();
    }

    void StopIfDrained() {
        if (draining_ && pending_.empty() && repliesInFlight_ == 0) {
            event_base_loopbreak(base_.get());
        }
    }

    static void OnGraceOver(evutil_socket_t, short, void* self) {
        auto& front = *static_cast<Front*>(self);
        std::fprintf(stderr, "farlink-host: requests still running after %lds; exiting anyway\n",
                     static_cast<long>(kShutdownGrace.count()));
        front.exitCode_ = EXIT_FAILURE;
        event_base_loopbreak(front.base_.get());
    }

    const Options& options_;
    AccessLog log_;
    SessionStore sessions_;
    LoginThrottle throttle_;
    ApiTable table_;
    HostMetrics metrics_;
    AuditLog audit_;
    HostNames names_;
    ApiService service_;
    Router router_;
    StaticFiles pages_;
    UniqueFd control_;
    TlsContext tls_;  // outlives the connections that use it
    // Declared in the order they must be released in reverse.
    EventBasePtr base_;
    EvhttpPtr http_;
    EventPtr controlEvent_;
    EventPtr stopEvents_[2];
    EventPtr graceTimer_;
    std::unique_ptr<ConnectionGuard> guard_;  // before http_ goes
    std::map<std::uint32_t, std::unique_ptr<Worker>> workers_;
    std::list<std::unique_ptr<Pending>> pending_;
    std::deque<Pending*> queue_;
    bool exclusiveRunning_ = false;
    bool draining_ = false;
    int repliesInFlight_ = 0;
    int exitCode_ = EXIT_SUCCESS;
};

}  // namespace

void RunFront(FrontSetup setup) {
    prctl(PR_SET_NAME, "farlink-front");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_IGN);
    int code = EXIT_FAILURE;
    try {
        DropAllIds(setup.ids);
        Front front(setup);
        if (!front.SignalReady()) throw std::runtime_error("lost the supervisor");
        code = front.Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: front: %s\n", error.what());
    }
    std::fflush(nullptr);
    _exit(code);
}

}  // namespace farlink::host
