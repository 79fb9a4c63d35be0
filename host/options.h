// Command line of farlink-host.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace farlink::host {

struct Options {
    std::string modulePath;
    std::optional<std::string> listenAddress;  // "ADDR:PORT"
    std::optional<int> listenFd;               // inherited, already listening
    std::string user = "nobody";
    std::string password;
    unsigned threads = 4;
    std::string accessLogPath;  // empty: stderr
    std::size_t maxBody = 1024 * 1024;
    std::string pidFile;
    std::chrono::seconds requestTimeout{30};
};

// Throws StartupError naming the first problem. Reads --password-file.
Options ParseOptions(const std::vector<std::string>& args);

}  // namespace farlink::host
