// Command line of farlink-host.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "secrets.h"

namespace farlink::host {

struct Options {
    std::string modulePath;
    std::optional<std::string> listenAddress;  // "ADDR:PORT"
    std::optional<int> listenFd;               // inherited, already listening
    std::string user = "nobody";
    PasswordHash adminPassword;  // the clear text is wiped once hashed
    unsigned workers = 4;        // at most this many processes that each load the module
    unsigned minWorkers = 1;     // kept running when idle; never above `workers`
    std::chrono::seconds workerIdleTimeout{30};  // a worker above the minimum idle this long ends
    std::chrono::seconds handlerTimeout{60};
    std::size_t queueLimit = 256;  // requests waiting for a worker
    // Methods with a name that begins with one of these run one at a time
    // across all workers.
    std::vector<std::string> exclusivePrefixes{"set"};
    // Connections: 0 until derived from the descriptor limit at start.
    std::size_t maxConnections = 0;
    std::size_t maxConnectionsPerAddress = 64;
    std::vector<std::string> unlimitedAddresses;
    std::vector<std::string> proxyPeers;        // may send a PROXY header naming the client
    std::chrono::seconds headerTimeout{10};     // for a whole request on a new connection
    std::chrono::seconds keepAliveTimeout{15};  // for the next one after an answer
    std::string accessLogPath;                  // empty: stderr
    std::string auditLogPath;                   // empty: recent records in memory only
    std::vector<std::string> allowedHosts;  // Host names besides loopback and the listen address
    std::size_t maxBody = 1024 * 1024;
    std::string pidFile;
    std::chrono::seconds requestTimeout{30};
    // TLS: both or neither; without them the host speaks plain HTTP.
    std::string tlsCertificate;
    std::string tlsKey;
    std::chrono::seconds sessionIdleTimeout{1800};
    std::chrono::seconds sessionLifetime{43200};
    std::size_t maxSessions = 1024;
    std::string webRoot;  // the admin page's files; empty: none served
};

// Throws StartupError naming the first problem. Reads --password-file.
// Wipes every argument once read (the password is among them).
Options ParseOptions(std::vector<std::string>& args);
// What --help prints: every option ParseOptions takes.
std::string UsageText();

// Whether `method` must run alone among the methods of its kind.
bool IsExclusiveMethod(const Options& options, const std::string& method);

}  // namespace farlink::host
