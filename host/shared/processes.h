// The entry points of the processes the supervisor starts, and what each is
// handed. The supervisor knows the front and the workers only through this.
//
// The front is the only process that reads from the network. It owns the
// listening socket, HTTP, login and sessions, routing, the queue of
// requests waiting for a worker and the access log, and it runs with every
// id dropped to the service user's. It never loads the module: it knows the
// table's rows from the workers' greeting.
//
// A worker loads the module as root, keeps root only in its saved ids,
// greets with the table's rows, then runs one request at a time from its
// channel until the channel closes.
#pragma once

#include <farlink/unique_fd.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "api_table.h"
#include "options.h"
#include "privileges.h"
#include "tls.h"

namespace farlink::host {

// The front's end of one worker's channel.
struct WorkerLink {
    std::uint32_t id = 0;
    pid_t pid = 0;
    UniqueFd channel;
};

struct FrontSetup {
    const Options* options = nullptr;
    ServiceIds ids;
    UniqueFd listener;
    TlsContext tls;             // empty: plain HTTP
    UniqueFd accessLog;         // empty: stderr
    UniqueFd auditLog;          // empty: none
    std::string listenAddress;  // "ADDR:PORT" as bound
    std::vector<RowName> rows;
    std::vector<WorkerLink> workers;
    UniqueFd control;  // to the supervisor
};

// Serves until SIGTERM or SIGINT and the requests in flight are done;
// exits 0, or 1 if some were still running after the grace time.
[[noreturn]] void RunFront(FrontSetup setup);

[[noreturn]] void RunWorker(const std::string& modulePath, const ServiceIds& ids, int channel);

}  // namespace farlink::host
