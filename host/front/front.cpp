// The front process: HTTP on the listening socket, sessions and routing, and
// the hand-over of calls to the workers (worker_pool.h). Its entry point and
// what it is handed are in processes.h.

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <farlink/event_handles.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <tuple>

#include "channel.h"
#include "connection_guard.h"
#include "control.h"
#include "event_time.h"
#include "http_engine.h"
#include "login_throttle.h"
#include "processes.h"
#include "reply_headers.h"
#include "router.h"
#include "sandbox.h"
#include "secrets.h"
#include "sessions.h"
#include "static_files.h"
#include "worker_pool.h"

namespace farlink::host {

namespace {

using Clock = std::chrono::steady_clock;

// Requests in flight get this long to finish once the front is told to stop.
constexpr std::chrono::seconds kShutdownGrace{10};
constexpr int kServiceUnavailable = 503;

class Front : public HostState, private WorkerPool::Owner {
public:
    explicit Front(FrontSetup& setup)
        : options_(*setup.options),
          log_(std::move(setup.accessLog)),
          sessions_(SessionLimitsOf(options_)),
          table_(ApiTable::FromNames(setup.rows)),
          metrics_(setup.rows),
          audit_(std::move(setup.auditLog)),
          names_(AddressOf(setup.listenAddress), options_.allowedHosts),
          service_(table_, sessions_, throttle_, options_.adminPassword),
          router_(service_, log_, setup.tls != nullptr, {metrics_, audit_, names_, *this}),
          pages_(options_.webRoot.empty() ? StaticFiles() : StaticFiles(options_.webRoot)),
          control_(std::move(setup.control)),
          tls_(std::move(setup.tls)) {
        base_.reset(event_base_new());
        if (!base_) FailFront("cannot set up libevent");
        http_.reset(evhttp_new(base_.get()));
        controlEvent_.reset(
            event_new(base_.get(), control_.Get(), EV_READ | EV_PERSIST, &Front::OnControl, this));
        stopEvents_[0].reset(evsignal_new(base_.get(), SIGTERM, &Front::OnStopSignal, this));
        stopEvents_[1].reset(evsignal_new(base_.get(), SIGINT, &Front::OnStopSignal, this));
        graceTimer_.reset(evtimer_new(base_.get(), &Front::OnGraceOver, this));
        if (!http_ || !controlEvent_ || !stopEvents_[0] || !stopEvents_[1] || !graceTimer_) {
            FailFront("cannot set up libevent");
        }
        event_add(controlEvent_.get(), nullptr);
        event_add(stopEvents_[0].get(), nullptr);
        event_add(stopEvents_[1].get(), nullptr);
        ConfigureEngine(http_.get(), options_, &Front::OnRequest, this);
        WorkerPool::Owner& owner = *this;
        pool_ = std::make_unique<WorkerPool>(base_.get(), options_, metrics_, owner);
        guard_ =
            std::make_unique<ConnectionGuard>(base_.get(), http_.get(), std::move(setup.listener),
                                              ConnectionLimitsOf(options_), tls_.get());
        guard_->OnClosing([this](evhttp_connection* connection) { ReplyEnded(connection); });
        for (WorkerLink& link : setup.workers) pool_->Add(std::move(link));
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
        return !draining_ && pool_->QueueDepth() < options_.queueLimit && pool_->AnyAlive();
    }
    std::size_t QueueDepth() const override { return pool_->QueueDepth(); }

private:
    // --- requests ---------------------------------------------------------

    static void OnRequest(evhttp_request* request, void* self) {
        static_cast<Front*>(self)->Handle(request);
    }

    void Handle(evhttp_request* request) {
        const Clock::time_point started = Clock::now();
        guard_->RequestArrived(request);
        HttpExchange exchange = ReadExchange(request, options_.maxBody);
        if (auto proxied = guard_->ProxiedClient(request)) {
            std::tie(exchange.address, exchange.client) = std::move(*proxied);
        }
        // A foreign Host goes on to the router, which refuses it.
        if (names_.Allows(exchange.host) && StaticFiles::Claims(exchange.method, exchange.path)) {
            if (std::optional<StaticFile> file =
                    pages_.Find(exchange.path, {exchange.acceptEncoding, exchange.ifNoneMatch})) {
                SendFile(request, exchange, std::move(*file), started);
                return;
            }
        }
        auto decided = router_.Decide(exchange);
        if (auto* answer = std::get_if<Router::Answer>(&decided)) {
            Send(request, router_.Finish(exchange, *answer, "ids-ok", started));
            Wipe(exchange.body);  // a login's password
            return;
        }
        auto& call = std::get<HandlerCall>(decided);
        if (pool_->QueueDepth() >= options_.queueLimit) {
            Send(request,
                 router_.Finish(exchange,
                                HostFailure(kServiceUnavailable, HostError::kBusy, call.Label()),
                                "ids-ok", started));
            return;
        }
        Wipe(exchange.body);
        pending_.push_back(std::make_unique<PendingCall>());
        PendingCall& pending = *pending_.back();
        pending.owner = this;
        pending.request = request;
        pending.exchange = std::move(exchange);
        pending.call = call.Label();
        pending.secret = HoldsSecret(call.params);
        Json::Value message = CallMessage(call);
        pending.frame = EncodeFrame(message);
        if (pending.secret) {
            WipeSecrets(message);
            WipeSecrets(call.params);
        }
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
        pool_->Enqueue(pending);
    }

    // The client closed its connection before its answer. A queued request
    // is dropped; a running one finishes and its answer is discarded.
    static void OnClientGone(evhttp_connection* connection, void* context) {
        auto& pending = *static_cast<PendingCall*>(context);
        static_cast<Front*>(pending.owner)->guard_->Closing(connection);
        pending.request = nullptr;
        if (!pending.running) static_cast<Front*>(pending.owner)->pool_->DropQueued(pending);
    }

    // Every answer the front makes leaves through here.
    void Send(evhttp_request* request, const HttpReply& reply) {
        guard_->Answered(request);  // and watches the connection's end again
        evkeyvalq* headers = evhttp_request_get_output_headers(request);
        evhttp_add_header(headers, "Content-Type", reply.contentType.c_str());
        for (const HeaderList& list :
             {SafeHeaders(reply.contentType, reply.revalidated), reply.headers}) {
            for (const auto& [name, value] : list) {
                evhttp_add_header(headers, name.c_str(), value.c_str());
            }
        }
        if (draining_) evhttp_add_header(headers, "Connection", "close");
        evbuffer* body = evhttp_request_get_output_buffer(request);
        evbuffer_add(body, reply.body.data(), reply.body.size());
        replying_.insert(evhttp_request_get_connection(request));
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
        reply.headers = std::move(file.headers);
        reply.revalidated = true;
        Send(request, reply);
    }

    // A reply ends either written or with its connection (a client that
    // resets while its answers are written); the engine tells only one.
    static void OnReplyWritten(evhttp_request* request, void* self) {
        static_cast<Front*>(self)->ReplyEnded(evhttp_request_get_connection(request));
    }
    void ReplyEnded(evhttp_connection* connection) {
        if (replying_.erase(connection) == 0) return;
        StopIfDrained();
    }

    void Answer(PendingCall& pending, const Router::Answer& answer,
                const std::string& ids) override {
        if (pending.audit) {
            pending.audit->result = answer.api.result;
            audit_.RecordCall(*pending.audit);
            pending.audit.reset();
        }
        if (pending.request == nullptr) return;
        Send(pending.request, router_.Finish(pending.exchange, answer, ids, pending.started));
        pending.request = nullptr;
    }

    void Done(PendingCall& pending) override {
        for (auto it = pending_.begin(); it != pending_.end(); ++it) {
            if (it->get() == &pending) {
                pending_.erase(it);
                break;
            }
        }
        StopIfDrained();
    }

    void KillWorker(std::uint32_t id, pid_t pid) override {
        ControlMessage message;
        message.kind = ControlKind::kKillWorker;
        message.worker = id;
        message.pid = pid;
        if (!SendControl(control_.Get(), message)) FailFront("lost the supervisor");
    }

    void WantWorkers(unsigned count) override {
        ControlMessage message;
        message.kind = ControlKind::kWantWorkers;
        message.wanted = count;
        if (!SendControl(control_.Get(), message)) FailFront("lost the supervisor");
    }

    // --- the supervisor and stopping --------------------------------------

    static void OnControl(evutil_socket_t, short, void* self) {
        auto& front = *static_cast<Front*>(self);
        UniqueFd passed;
        std::optional<ControlMessage> message = ReceiveControl(front.control_.Get(), passed);
        if (!message) FailFront("lost the supervisor");
        if (message->kind == ControlKind::kWorkerAdded && passed) {
            front.pool_->Add({message->worker, message->pid, std::move(passed)});
        } else if (message->kind == ControlKind::kWorkerExited) {
            front.pool_->Exited(message->worker, message->status);
        } else if (message->kind == ControlKind::kAccessLogReopened && passed) {
            // Lines are written whole from this one thread, so each goes
            // entirely to the old file or entirely to the new one.
            front.log_.Replace(std::move(passed));
        } else if (message->kind == ControlKind::kAuditLogReopened && passed) {
            front.audit_.Replace(std::move(passed));
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
        if (draining_ && pending_.empty() && replying_.empty()) {
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
    std::unique_ptr<WorkerPool> pool_;        // its events before base_ goes
    std::list<std::unique_ptr<PendingCall>> pending_;
    bool draining_ = false;
    std::set<evhttp_connection*> replying_;  // a reply is being written on each
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
    // SIGHUP is the supervisor's, which reopens the logs; one sent to the
    // whole service must not end the front.
    signal(SIGHUP, SIG_IGN);
    int code = EXIT_FAILURE;
    try {
        // Read while root (the key may be root's alone), and only here.
        if (!setup.options->tlsCertificate.empty()) {
            setup.tls = LoadTlsContext(setup.options->tlsCertificate, setup.options->tlsKey);
        }
        RenouncePrivileges();
        DropAllIds(setup.ids);
        Front front(setup);
        ConfineFiles(setup.options->webRoot);
        ConfineSystemCalls();
        if (!front.SignalReady()) throw std::runtime_error("lost the supervisor");
        code = front.Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: front: %s\n", error.what());
    }
    std::fflush(nullptr);
    _exit(code);
}

}  // namespace farlink::host
