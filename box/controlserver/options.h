// Command line of the control server.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace farlink {
namespace controlserver {

struct Options {
    std::string certPath;
    std::string keyPath;
    std::vector<std::string> bindAddresses;  // empty: every IPv4 and IPv6 address
    int httpsPort = 443;
    int httpPort = 80;
    std::string controlAddress = "127.0.0.1";
    int controlPort = 8444;
    std::string recordsPath;
    std::string primaryHost;
    std::string secondaryHost;
    // Where to write the ports actually bound (useful with port 0).
    std::string portsPath;
};

// Parses argv; on failure returns nothing and puts the reason in `error`.
std::optional<Options> ParseOptions(const std::vector<std::string>& args, std::string& error);

const char* Usage();

// "ADDR:PORT" or "[V6ADDR]:PORT".
bool SplitAddressPort(const std::string& text, std::string& address, int& port);

}  // namespace controlserver
}  // namespace farlink
