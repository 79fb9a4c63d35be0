#include "worker_pool.h"

#include <farlink/file_io.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "channel.h"
#include "control.h"
#include "event_time.h"

namespace farlink::host {

void FailFront(const char* what) {
    std::fprintf(stderr, "farlink-host: front: %s\n", what);
    std::fflush(nullptr);
    _exit(EXIT_FAILURE);
}

Router::Answer HostFailure(int status, HostError error, const std::string& call,
                           const std::string& detail) {
    Router::Answer answer{status, HostRefusal(error)};
    answer.api.call = call;
    if (!detail.empty()) answer.api.result += "," + detail;
    return answer;
}

WorkerPool::WorkerPool(event_base* base, const Options& options, HostMetrics& metrics, Owner& owner)
    : base_(base),
      options_(options),
      metrics_(metrics),
      owner_(owner),
      wanted_(options.minWorkers),
      retireTimer_(evtimer_new(base, &WorkerPool::OnRetire, this)) {
    if (!retireTimer_) FailFront("cannot set up libevent");
}

void WorkerPool::Add(WorkerLink link) {
    auto worker = std::make_unique<Worker>();
    worker->pool = this;
    worker->id = link.id;
    worker->pid = link.pid;
    worker->channel = std::move(link.channel);
    worker->readable.reset(event_new(base_, worker->channel.Get(), EV_READ | EV_PERSIST,
                                     &WorkerPool::OnWorkerReadable, worker.get()));
    worker->deadline.reset(evtimer_new(base_, &WorkerPool::OnDeadline, worker.get()));
    if (!worker->readable || !worker->deadline) FailFront("cannot watch a worker");
    event_add(worker->readable.get(), nullptr);
    worker->idleSince = std::chrono::steady_clock::now();
    workers_[link.id] = std::move(worker);
    metrics_.CountWorkerStart();
    Pump();
}

bool WorkerPool::AnyAlive() const {
    return std::any_of(workers_.begin(), workers_.end(),
                       [](const auto& entry) { return !entry.second->killed; });
}

void WorkerPool::Enqueue(PendingCall& pending) {
    queue_.push_back(&pending);
    Pump();
}

void WorkerPool::DropQueued(PendingCall& pending) {
    queue_.erase(std::find(queue_.begin(), queue_.end(), &pending));
    owner_.Done(pending);
}

WorkerPool::Worker* WorkerPool::IdleWorker() {
    for (auto& [id, worker] : workers_) {
        if (worker->running == nullptr && !worker->killed) return worker.get();
    }
    return nullptr;
}

std::size_t WorkerPool::Alive() const {
    return static_cast<std::size_t>(std::count_if(
        workers_.begin(), workers_.end(), [](const auto& entry) { return !entry.second->killed; }));
}

// Starts what can start: queued requests in arrival order, each exclusive
// one only while no other exclusive one runs.
void WorkerPool::Pump() {
    for (auto it = queue_.begin(); it != queue_.end();) {
        PendingCall& pending = **it;
        if (pending.exclusive && exclusiveRunning_) {
            ++it;
            continue;
        }
        Worker* worker = IdleWorker();
        if (worker == nullptr) break;
        it = queue_.erase(it);
        Dispatch(*worker, pending);
    }
    AskForWorkers();
    ScheduleRetirement();
}

// One worker for every call that runs or waits, within --workers. Only a
// rise is told at once; fewer are wanted when idle ones are let go.
void WorkerPool::AskForWorkers() {
    const std::size_t running = static_cast<std::size_t>(
        std::count_if(workers_.begin(), workers_.end(), [](const auto& entry) {
            return entry.second->running != nullptr && !entry.second->killed;
        }));
    const auto demand =
        static_cast<unsigned>(std::min<std::size_t>(running + queue_.size(), options_.workers));
    if (demand <= wanted_) return;
    wanted_ = demand;
    owner_.WantWorkers(wanted_);
}

// Arms the timer for the worker that has idled longest, while there are
// more than the minimum; otherwise nothing is armed and the front sleeps.
void WorkerPool::ScheduleRetirement() {
    evtimer_del(retireTimer_.get());
    if (Alive() <= options_.minWorkers) return;
    std::optional<std::chrono::steady_clock::time_point> oldest;
    for (const auto& [id, worker] : workers_) {
        if (worker->running != nullptr || worker->killed) continue;
        if (!oldest || worker->idleSince < *oldest) oldest = worker->idleSince;
    }
    if (!oldest) return;
    const auto left = std::max<std::chrono::steady_clock::duration>(
        *oldest + options_.workerIdleTimeout - std::chrono::steady_clock::now(), {});
    const timeval wait = ToTimeval(std::chrono::ceil<std::chrono::milliseconds>(left));
    evtimer_add(retireTimer_.get(), &wait);
}

void WorkerPool::OnRetire(evutil_socket_t, short, void* context) {
    static_cast<WorkerPool*>(context)->RetireIdle();
}

// A worker let go ends by itself when its channel closes; the supervisor is
// told first, so that it does not replace it.
void WorkerPool::RetireIdle() {
    const auto due = std::chrono::steady_clock::now() - options_.workerIdleTimeout;
    std::vector<std::uint32_t> going;
    std::size_t alive = Alive();
    for (const auto& [id, worker] : workers_) {
        if (alive <= options_.minWorkers) break;
        if (worker->running != nullptr || worker->killed || worker->idleSince > due) continue;
        going.push_back(id);
        --alive;
    }
    if (!going.empty()) {
        wanted_ = static_cast<unsigned>(std::max<std::size_t>(alive, options_.minWorkers));
        owner_.WantWorkers(wanted_);
        for (std::uint32_t id : going) workers_.erase(id);
    }
    ScheduleRetirement();
}

void WorkerPool::Dispatch(Worker& worker, PendingCall& pending) {
    worker.running = &pending;
    worker.killed = pending.secret;
    pending.running = true;
    if (pending.exclusive) exclusiveRunning_ = true;
    // A worker that died meanwhile is reported by the supervisor.
    (void)WriteAll(worker.channel.Get(), pending.frame.data(), pending.frame.size());
    Wipe(pending.frame);
    pending.frame.shrink_to_fit();
    const timeval limit = ToTimeval(options_.handlerTimeout);
    evtimer_add(worker.deadline.get(), &limit);
}

// The running request of `worker` is over, one way or another.
void WorkerPool::Release(Worker& worker) {
    PendingCall* pending = worker.running;
    worker.running = nullptr;
    worker.idleSince = std::chrono::steady_clock::now();
    evtimer_del(worker.deadline.get());
    if (pending == nullptr) return;
    if (pending->exclusive) exclusiveRunning_ = false;
    owner_.Done(*pending);
}

void WorkerPool::OnWorkerReadable(evutil_socket_t, short, void* context) {
    auto& worker = *static_cast<Worker*>(context);
    worker.pool->ReadAnswers(worker);
}

// Takes what the worker has sent; at its end of file the supervisor's notice
// of its end finishes the work.
void WorkerPool::ReadAnswers(Worker& worker) {
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

void WorkerPool::TakeAnswers(Worker& worker) {
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
        owner_.Answer(*worker.running, Router::Answer{200, std::move(answer->reply)}, answer->ids);
        Release(worker);
    }
    worker.input.erase(0, used);
    Pump();
}

void WorkerPool::OnDeadline(evutil_socket_t, short, void* context) {
    auto& worker = *static_cast<Worker*>(context);
    WorkerPool& pool = *worker.pool;
    if (worker.running != nullptr) {
        pool.metrics_.CountHandlerTimeout();
        pool.owner_.Answer(
            *worker.running,
            HostFailure(200, HostError::kHandlerTimeout, worker.running->call, "killed"), "-");
    }
    pool.Kill(worker);
}

void WorkerPool::Kill(Worker& worker) {
    worker.killed = true;
    owner_.KillWorker(worker.id, worker.pid);
}

void WorkerPool::Exited(std::uint32_t id, int status) {
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
        owner_.Answer(
            *worker.running,
            HostFailure(200, HostError::kWorkerDied, worker.running->call, DescribeEnd(status)),
            "-");
    }
    Release(worker);
    workers_.erase(found);
    Pump();
}

}  // namespace farlink::host
