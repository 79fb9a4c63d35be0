#include "options.h"

#include <cerrno>
#include <cstdlib>

namespace farlink {
namespace controlserver {
namespace {

bool ParsePort(const std::string& text, int& port) {
    if (text.empty() || text.size() > 5) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < 0 || value > 65535) {
        return false;
    }
    port = static_cast<int>(value);
    return true;
}

}  // namespace

const char* Usage() {
    return "usage: farlink-controlserver --cert PEM --key PEM --records FILE\n"
           "         [--bind ADDR]... [--https-port N] [--http-port N]\n"
           "         [--control ADDR:PORT] [--primary HOST] [--secondary HOST]\n"
           "         [--ports-file FILE]\n";
}

bool SplitAddressPort(const std::string& text, std::string& address, int& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    std::string host = text.substr(0, colon);
    if (host.front() == '[') {
        if (host.size() < 3 || host.back() != ']') {
            return false;
        }
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        return false;  // a bare IPv6 address needs brackets
    }
    if (!ParsePort(text.substr(colon + 1), port)) {
        return false;
    }
    address = host;
    return true;
}

std::optional<Options> ParseOptions(const std::vector<std::string>& args, std::string& error) {
    Options options;
    options.primaryHost = FARLINK_PRIMARY_CONTROL_HOST;
    options.secondaryHost = FARLINK_SECONDARY_CONTROL_HOST;

    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& flag = args[i];
        if (i + 1 >= args.size()) {
            error = "missing value for " + flag;
            return std::nullopt;
        }
        const std::string& value = args[++i];
        if (flag == "--cert") {
            options.certPath = value;
        } else if (flag == "--key") {
            options.keyPath = value;
        } else if (flag == "--records") {
            options.recordsPath = value;
        } else if (flag == "--bind") {
            options.bindAddresses.push_back(value);
        } else if (flag == "--https-port" || flag == "--http-port") {
            int& port = flag == "--https-port" ? options.httpsPort : options.httpPort;
            if (!ParsePort(value, port)) {
                error = "bad port for " + flag + ": " + value;
                return std::nullopt;
            }
        } else if (flag == "--control") {
            if (!SplitAddressPort(value, options.controlAddress, options.controlPort)) {
                error = "bad --control address: " + value;
                return std::nullopt;
            }
        } else if (flag == "--primary") {
            options.primaryHost = value;
        } else if (flag == "--secondary") {
            options.secondaryHost = value;
        } else if (flag == "--ports-file") {
            options.portsPath = value;
        } else {
            error = "unknown option " + flag;
            return std::nullopt;
        }
    }
    if (options.certPath.empty() || options.keyPath.empty() || options.recordsPath.empty()) {
        error = "--cert, --key and --records are required";
        return std::nullopt;
    }
    if (options.primaryHost.empty() || options.secondaryHost.empty()) {
        error = "--primary and --secondary must not be empty";
        return std::nullopt;
    }
    return options;
}

}  // namespace controlserver
}  // namespace farlink
