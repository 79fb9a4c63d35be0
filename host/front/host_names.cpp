#include "host_names.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

namespace farlink::host {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool IsLoopback(const std::string& name) {
    if (name == "localhost" || name == "::1") return true;
    in_addr v4{};
    return inet_pton(AF_INET, name.c_str(), &v4) == 1 && (ntohl(v4.s_addr) >> 24) == 127;
}

bool IsWildcard(const std::string& address) { return address == "0.0.0.0" || address == "::"; }

bool OnlyDigits(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

}  // namespace

std::string HostNameOf(const std::string& hostHeader) {
    std::string name = Lower(hostHeader);
    std::string port;
    if (!name.empty() && name.front() == '[') {
        const std::size_t close = name.find(']');
        if (close == std::string::npos) return "";
        const std::string rest = name.substr(close + 1);
        if (!rest.empty() && rest.front() != ':') return "";
        port = rest.empty() ? "" : rest.substr(1);
        name = name.substr(1, close - 1);
    } else if (const std::size_t colon = name.find(':'); colon != std::string::npos) {
        port = name.substr(colon + 1);
        name = name.substr(0, colon);
    }
    if (!OnlyDigits(port)) return "";
    if (!name.empty() && name.back() == '.') name.pop_back();
    return name;
}

HostNames::HostNames(const std::string& listenAddress, const std::vector<std::string>& extra) {
    if (!listenAddress.empty() && !IsWildcard(listenAddress)) {
        names_.push_back(Lower(listenAddress));
    }
    for (const std::string& name : extra) {
        const std::string normal = HostNameOf(name);
        if (!normal.empty()) names_.push_back(normal);
    }
}

bool HostNames::Allows(const std::string& hostHeader) const {
    if (hostHeader.empty()) return true;
    const std::string name = HostNameOf(hostHeader);
    if (name.empty()) return false;
    return IsLoopback(name) || std::find(names_.begin(), names_.end(), name) != names_.end();
}

}  // namespace farlink::host
