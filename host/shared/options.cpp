#include "options.h"

#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <limits>

#include "startup_error.h"

namespace farlink::host {

namespace {

// Bodies are held in memory whole; more than this is no longer an API call.
constexpr unsigned long long kMaxBodyLimit = 1ull << 30;
// A session's idle time-out and lifetime: at most 30 days.
constexpr unsigned long long kMaxSessionTime = 30ull * 24 * 3600;

unsigned long long ParseNumber(const std::string& option, const std::string& text,
                               unsigned long long min, unsigned long long max) {
    bool digitsOnly = !text.empty() && text.size() <= 20 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
    unsigned long long value = 0;
    if (digitsOnly) {
        try {
            value = std::stoull(text);
        } catch (const std::out_of_range&) {
            digitsOnly = false;
        }
    }
    if (!digitsOnly || value < min || value > max) {
        throw StartupError(option + " wants a number from " + std::to_string(min) + " to " +
                           std::to_string(max) + ", not '" + text + "'");
    }
    return value;
}

std::chrono::seconds ParseSeconds(const std::string& option, const std::string& text,
                                  unsigned long long max) {
    return std::chrono::seconds(ParseNumber(option, text, 1, max));
}

// "a,b,,c" -> {"a","b","c"}; "" -> {}.
std::vector<std::string> SplitList(const std::string& text) {
    std::vector<std::string> items;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find(',', start), text.size());
        if (end > start) items.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return items;
}

// Read with plain reads into a buffer that is wiped, so that no stream
// buffer keeps the password.
std::string ReadFirstLine(const std::string& path) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(4096, '\0');
    const ssize_t got = fd.Valid() ? read(fd.Get(), text.data(), text.size()) : -1;
    if (got <= 0) {
        Wipe(text);
        throw StartupError("cannot read the password file " + path);
    }
    std::string line = text.substr(0, std::min(text.find('\n'), static_cast<std::size_t>(got)));
    Wipe(text);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

struct PasswordSources {
    std::optional<std::string> file;
    std::optional<std::string> literal;
};

void ResolvePassword(PasswordSources& sources, Options& options) {
    if (sources.file && sources.literal) {
        Wipe(*sources.literal);
        throw StartupError("give either --password-file or --password, not both");
    }
    std::string clear;
    if (sources.file) clear = ReadFirstLine(*sources.file);
    if (sources.literal) clear.swap(*sources.literal);
    if (clear.empty()) throw StartupError("no admin password: give --password-file or --password");
    options.adminPassword = HashPassword(clear);
}

// The front opens it later, with the service user's rights; a root that is
// not even a directory is a mistake worth stopping for now.
std::string CheckedWebRoot(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        throw StartupError("--web-root " + path + " is not a directory");
    }
    return path;
}

void CheckRequired(const Options& options) {
    if (options.modulePath.empty()) throw StartupError("--module is required");
    if (options.listenAddress && options.listenFd) {
        throw StartupError("give either --listen or --listen-fd, not both");
    }
    if (!options.listenAddress && !options.listenFd) {
        throw StartupError("--listen or --listen-fd is required");
    }
    if (options.tlsCertificate.empty() != options.tlsKey.empty()) {
        throw StartupError("give both --tls-cert and --tls-key, or neither");
    }
}

using Setter = std::function<void(const std::string& option, const std::string& value)>;

struct OptionEntry {
    const char* name;
    const char* value;  // what the value is, for the usage text
    const char* help;
    Setter set;
};

// Every option, with what --help says of it: one list, so that the usage
// text names exactly the options the parser takes.
std::vector<OptionEntry> OptionTable(Options& options, PasswordSources& passwords) {
    return {
        {"--module", "PATH", "the module to load (required)",
         [&](auto&, auto& v) { options.modulePath = v; }},
        {"--listen", "ADDR:PORT", "bind and listen here; port 0 picks a free one",
         [&](auto&, auto& v) { options.listenAddress = v; }},
        {"--listen-fd", "N", "serve on this inherited listening socket",
         [&](auto& o, auto& v) {
             options.listenFd =
                 static_cast<int>(ParseNumber(o, v, 0, std::numeric_limits<int>::max()));
         }},
        {"--password-file", "FILE", "the admin password is the file's first line",
         [&](auto&, auto& v) { passwords.file = v; }},
        {"--password", "PW", "the admin password itself",
         [&](auto&, auto& v) { passwords.literal = v; }},
        {"--user", "NAME", "the service user, not root (nobody)",
         [&](auto&, auto& v) { options.user = v; }},
        {"--workers", "N", "at most this many worker processes, 1..64 (4)",
         [&](auto& o, auto& v) {
             options.workers = static_cast<unsigned>(ParseNumber(o, v, 1, 64));
         }},
        {"--min-workers", "N", "worker processes kept while idle, 1..64 (1)",
         [&](auto& o, auto& v) {
             options.minWorkers = static_cast<unsigned>(ParseNumber(o, v, 1, 64));
         }},
        {"--worker-idle-timeout", "SECONDS",
         "a worker above the minimum idle this long ends, 1..86400 (30)",
         [&](auto& o, auto& v) { options.workerIdleTimeout = ParseSeconds(o, v, 86400); }},
        {"--access-log", "FILE", "append the access log here (stderr)",
         [&](auto&, auto& v) { options.accessLogPath = v; }},
        {"--audit-log", "FILE", "append the audit log here (memory only)",
         [&](auto&, auto& v) { options.auditLogPath = v; }},
        {"--allowed-hosts", "NAMES", "Host names answered besides loopback and the listen address",
         [&](auto&, auto& v) { options.allowedHosts = SplitList(v); }},
        {"--max-body", "BYTES", "largest request body, 1..1 GiB (1048576)",
         [&](auto& o, auto& v) { options.maxBody = ParseNumber(o, v, 1, kMaxBodyLimit); }},
        {"--pid-file", "FILE", "write the process id here",
         [&](auto&, auto& v) { options.pidFile = v; }},
        {"--request-timeout", "SECONDS", "time for each read and write of a request (30)",
         [&](auto& o, auto& v) { options.requestTimeout = ParseSeconds(o, v, 3600); }},
        {"--handler-timeout", "SECONDS", "time a handler may run, 1..86400 (60)",
         [&](auto& o, auto& v) { options.handlerTimeout = ParseSeconds(o, v, 86400); }},
        {"--queue", "N", "requests that may wait for a worker, 1..65536 (256)",
         [&](auto& o, auto& v) { options.queueLimit = ParseNumber(o, v, 1, 65536); }},
        {"--exclusive-methods", "PREFIXES", "method prefixes that run one at a time (set)",
         [&](auto&, auto& v) { options.exclusivePrefixes = SplitList(v); }},
        {"--max-connections", "N", "connections open at once",
         [&](auto& o, auto& v) { options.maxConnections = ParseNumber(o, v, 1, 1u << 20); }},
        {"--max-connections-per-address", "N", "connections open at once from one address (64)",
         [&](auto& o, auto& v) {
             options.maxConnectionsPerAddress = ParseNumber(o, v, 1, 1u << 20);
         }},
        {"--unlimited-addresses", "ADDRS", "addresses the per-address cap does not apply to",
         [&](auto&, auto& v) { options.unlimitedAddresses = SplitList(v); }},
        {"--proxy-from", "ADDRS", "peers whose PROXY header (v2) names the client",
         [&](auto&, auto& v) { options.proxyPeers = SplitList(v); }},
        {"--header-timeout", "SECONDS", "time for a connection's first request, 1..3600 (10)",
         [&](auto& o, auto& v) { options.headerTimeout = ParseSeconds(o, v, 3600); }},
        {"--keepalive-timeout", "SECONDS", "time for the next request, 1..3600 (15)",
         [&](auto& o, auto& v) { options.keepAliveTimeout = ParseSeconds(o, v, 3600); }},
        {"--tls-cert", "FILE", "serve HTTPS with this PEM certificate chain",
         [&](auto&, auto& v) { options.tlsCertificate = v; }},
        {"--tls-key", "FILE", "the certificate's PEM private key",
         [&](auto&, auto& v) { options.tlsKey = v; }},
        {"--session-idle-timeout", "SECONDS", "an unused session ends, 1..2592000 (1800)",
         [&](auto& o, auto& v) {
             options.sessionIdleTimeout = ParseSeconds(o, v, kMaxSessionTime);
         }},
        {"--session-lifetime", "SECONDS", "a session ends after its login, 1..2592000 (43200)",
         [&](auto& o, auto& v) { options.sessionLifetime = ParseSeconds(o, v, kMaxSessionTime); }},
        {"--max-sessions", "N", "live sessions kept, 1..1048576 (1024)",
         [&](auto& o, auto& v) { options.maxSessions = ParseNumber(o, v, 1, 1u << 20); }},
        {"--web-root", "DIR", "serve the admin page's files from DIR",
         [&](auto&, auto& v) { options.webRoot = CheckedWebRoot(v); }},
    };
}

}  // namespace

Options ParseOptions(std::vector<std::string>& args) {
    Options options;
    PasswordSources passwords;
    const std::vector<OptionEntry> table = OptionTable(options, passwords);

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string option = args[i];
        std::optional<std::string> value;
        if (auto equals = option.find('=');
            option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.resize(equals);
        }
        auto row = std::find_if(table.begin(), table.end(),
                                [&](const OptionEntry& entry) { return option == entry.name; });
        if (row == table.end()) throw StartupError("unknown option '" + option + "'");
        if (!value) {
            if (i + 1 == args.size()) throw StartupError(option + " needs a value");
            value = args[++i];
        }
        row->set(option, *value);
        Wipe(*value);
        Wipe(option);
    }
    for (std::string& arg : args) Wipe(arg);
    CheckRequired(options);
    options.minWorkers = std::min(options.minWorkers, options.workers);
    ResolvePassword(passwords, options);
    return options;
}

std::string UsageText() {
    Options unused;
    PasswordSources unusedPasswords;
    std::string text =
        "usage: farlink-host --module PATH (--listen ADDR:PORT | --listen-fd N)\n"
        "                    (--password-file FILE | --password PW) [OPTION...]\n"
        "Every option also takes the form --NAME=VALUE; defaults in parentheses.\n\n";
    auto row = [&text](const std::string& left, const char* help) {
        text +=
            "  " + left + std::string(left.size() < 34 ? 34 - left.size() : 1, ' ') + help + "\n";
    };
    for (const OptionEntry& entry : OptionTable(unused, unusedPasswords)) {
        row(std::string(entry.name) + " " + entry.value, entry.help);
    }
    row("--help", "print this and exit");
    return text + "See farlink-host(8).\n";
}

bool IsExclusiveMethod(const Options& options, const std::string& method) {
    for (const std::string& prefix : options.exclusivePrefixes) {
        if (method.rfind(prefix, 0) == 0) return true;
    }
    return false;
}

}  // namespace farlink::host
