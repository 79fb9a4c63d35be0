// The front's side of the workers: the queue of calls waiting for one, which
// worker runs what, the write rule (one exclusive call at a time across all
// workers), the handler time-out, the answers read back, and how many
// workers there are: the minimum while idle, more (up to --workers) asked
// of the supervisor while calls wait, and the ones above the minimum let go
// once they have idled for --worker-idle-timeout.
#pragma once

#include <event2/event.h>
#include <event2/http.h>
#include <farlink/event_handles.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "audit_log.h"
#include "http_exchange.h"
#include "metrics.h"
#include "options.h"
#include "processes.h"
#include "router.h"

namespace farlink::host {

// A request that needs a worker: waiting in the queue or running.
struct PendingCall {
    void* owner = nullptr;              // the front, for the client's close callback
    evhttp_request* request = nullptr;  // null once answered or the client left
    HttpExchange exchange;              // without its body
    std::string call;
    std::string frame;
    bool exclusive = false;  // changes state: one at a time, and audited
    std::optional<AuditedCall> audit;
    std::chrono::steady_clock::time_point started;
    bool running = false;  // handed to a worker
    bool secret = false;   // its parameters hold a secret: its worker ends after it
};

// The front cannot go on (libevent failed, the supervisor is gone): it says
// so and exits at once.
[[noreturn]] void FailFront(const char* what);

// The host's own refusal of `call` as the router answers it.
Router::Answer HostFailure(int status, HostError error, const std::string& call,
                           const std::string& detail = "");

class WorkerPool {
public:
    // What the pool needs of the front.
    class Owner {
    public:
        virtual ~Owner() = default;
        // Also for a client that has left: the change may have happened.
        virtual void Answer(PendingCall& pending, const Router::Answer& answer,
                            const std::string& ids) = 0;
        // The call is over and its record may go.
        virtual void Done(PendingCall& pending) = 0;
        // Asks the supervisor to kill a worker that overran its time.
        virtual void KillWorker(std::uint32_t id, pid_t pid) = 0;
        // Asks the supervisor to keep `count` workers running.
        virtual void WantWorkers(unsigned count) = 0;
    };

    WorkerPool(event_base* base, const Options& options, HostMetrics& metrics, Owner& owner);

    void Add(WorkerLink link);
    // The supervisor saw the worker end with wait status `status`.
    void Exited(std::uint32_t id, int status);

    void Enqueue(PendingCall& pending);
    // The client of a queued call left.
    void DropQueued(PendingCall& pending);

    bool AnyAlive() const;
    std::size_t QueueDepth() const { return queue_.size(); }

private:
    // Frames to a worker are written whole with blocking writes: the worker
    // is idle and reading when it is sent one, so the write cannot stall.
    struct Worker {
        WorkerPool* pool = nullptr;
        std::uint32_t id = 0;
        pid_t pid = 0;
        UniqueFd channel;
        std::string input;  // what it sent that is not yet a whole frame
        EventPtr readable;
        EventPtr deadline;
        PendingCall* running = nullptr;
        bool killed = false;  // overran its time, ended or ends: it takes no more work
        std::chrono::steady_clock::time_point idleSince;
    };

    Worker* IdleWorker();
    std::size_t Alive() const;
    void AskForWorkers();
    void ScheduleRetirement();
    void RetireIdle();
    static void OnRetire(evutil_socket_t, short, void* context);
    void Pump();
    void Dispatch(Worker& worker, PendingCall& pending);
    void Release(Worker& worker);
    void ReadAnswers(Worker& worker);
    void TakeAnswers(Worker& worker);
    void Kill(Worker& worker);
    static void OnWorkerReadable(evutil_socket_t, short, void* context);
    static void OnDeadline(evutil_socket_t, short, void* context);

    event_base* base_;
    const Options& options_;
    HostMetrics& metrics_;
    Owner& owner_;
    std::map<std::uint32_t, std::unique_ptr<Worker>> workers_;
    std::deque<PendingCall*> queue_;
    bool exclusiveRunning_ = false;
    unsigned wanted_;       // as last told to the supervisor
    EventPtr retireTimer_;  // armed only while a worker above the minimum idles
};

}  // namespace farlink::host
