#include "options.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <limits>
#include <map>

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

std::string ReadFirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!file || !std::getline(file, line)) {
        throw StartupError("cannot read the password file " + path);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

struct PasswordSources {
    std::optional<std::string> file;
    std::optional<std::string> literal;
};

void ResolvePassword(const PasswordSources& sources, Options& options) {
    if (sources.file && sources.literal) {
        throw StartupError("give either --password-file or --password, not both");
    }
    if (sources.file) options.password = ReadFirstLine(*sources.file);
    if (sources.literal) options.password = *sources.literal;
    if (options.password.empty()) {
        throw StartupError("no admin password: give --password-file or --password");
    }
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

}  // namespace

Options ParseOptions(const std::vector<std::string>& args) {
    Options options;
    PasswordSources passwords;
    using Setter = std::function<void(const std::string& option, const std::string& value)>;
    const std::map<std::string, Setter> setters = {
        {"--module", [&](auto&, auto& v) { options.modulePath = v; }},
        {"--listen", [&](auto&, auto& v) { options.listenAddress = v; }},
        {"--listen-fd",
         [&](auto& o, auto& v) {
             options.listenFd =
                 static_cast<int>(ParseNumber(o, v, 0, std::numeric_limits<int>::max()));
         }},
        {"--user", [&](auto&, auto& v) { options.user = v; }},
        {"--password-file", [&](auto&, auto& v) { passwords.file = v; }},
        {"--password", [&](auto&, auto& v) { passwords.literal = v; }},
        {"--workers",
         [&](auto& o, auto& v) {
             options.workers = static_cast<unsigned>(ParseNumber(o, v, 1, 64));
         }},
        {"--min-workers",
         [&](auto& o, auto& v) {
             options.minWorkers = static_cast<unsigned>(ParseNumber(o, v, 1, 64));
         }},
        {"--worker-idle-timeout",
         [&](auto& o, auto& v) {
             options.workerIdleTimeout = std::chrono::seconds(ParseNumber(o, v, 1, 86400));
         }},
        {"--handler-timeout",
         [&](auto& o, auto& v) {
             options.handlerTimeout = std::chrono::seconds(ParseNumber(o, v, 1, 86400));
         }},
        {"--queue", [&](auto& o, auto& v) { options.queueLimit = ParseNumber(o, v, 1, 65536); }},
        {"--max-connections",
         [&](auto& o, auto& v) { options.maxConnections = ParseNumber(o, v, 1, 1u << 20); }},
        {"--max-connections-per-address",
         [&](auto& o, auto& v) {
             options.maxConnectionsPerAddress = ParseNumber(o, v, 1, 1u << 20);
         }},
        {"--unlimited-addresses",
         [&](auto&, auto& v) { options.unlimitedAddresses = SplitList(v); }},
        {"--header-timeout",
         [&](auto& o, auto& v) {
             options.headerTimeout = std::chrono::seconds(ParseNumber(o, v, 1, 3600));
         }},
        {"--keepalive-timeout",
         [&](auto& o, auto& v) {
             options.keepAliveTimeout = std::chrono::seconds(ParseNumber(o, v, 1, 3600));
         }},
        {"--exclusive-methods", [&](auto&, auto& v) { options.exclusivePrefixes = SplitList(v); }},
        {"--access-log", [&](auto&, auto& v) { options.accessLogPath = v; }},
        {"--audit-log", [&](auto&, auto& v) { options.auditLogPath = v; }},
        {"--allowed-hosts", [&](auto&, auto& v) { options.allowedHosts = SplitList(v); }},
        {"--max-body",
         [&](auto& o, auto& v) { options.maxBody = ParseNumber(o, v, 1, kMaxBodyLimit); }},
        {"--pid-file", [&](auto&, auto& v) { options.pidFile = v; }},
        {"--web-root", [&](auto&, auto& v) { options.webRoot = CheckedWebRoot(v); }},
        {"--request-timeout",
         [&](auto& o, auto& v) {
             options.requestTimeout = std::chrono::seconds(ParseNumber(o, v, 1, 3600));
         }},
        {"--tls-cert", [&](auto&, auto& v) { options.tlsCertificate = v; }},
        {"--tls-key", [&](auto&, auto& v) { options.tlsKey = v; }},
        {"--session-idle-timeout",
         [&](auto& o, auto& v) {
             options.sessionIdleTimeout =
                 std::chrono::seconds(ParseNumber(o, v, 1, kMaxSessionTime));
         }},
        {"--session-lifetime",
         [&](auto& o, auto& v) {
             options.sessionLifetime = std::chrono::seconds(ParseNumber(o, v, 1, kMaxSessionTime));
         }},
        {"--max-sessions",
         [&](auto& o, auto& v) { options.maxSessions = ParseNumber(o, v, 1, 1u << 20); }},
    };

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string option = args[i];
        std::optional<std::string> value;
        if (auto equals = option.find('=');
            option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.resize(equals);
        }
        auto setter = setters.find(option);
        if (setter == setters.end()) throw StartupError("unknown option '" + option + "'");
        if (!value) {
            if (i + 1 == args.size()) throw StartupError(option + " needs a value");
            value = args[++i];
        }
        setter->second(option, *value);
    }
    CheckRequired(options);
    options.minWorkers = std::min(options.minWorkers, options.workers);
    ResolvePassword(passwords, options);
    return options;
}

bool IsExclusiveMethod(const Options& options, const std::string& method) {
    for (const std::string& prefix : options.exclusivePrefixes) {
        if (method.rfind(prefix, 0) == 0) return true;
    }
    return false;
}

}  // namespace farlink::host
