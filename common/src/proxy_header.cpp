#include <farlink/proxy_header.h>
#include <netinet/in.h>

#include <cstring>

namespace farlink {

namespace {

constexpr unsigned char kSignature[12] = {0x0D, 0x0A, 0x0D, 0x0A, 0x00, 0x0D,
                                          0x0A, 0x51, 0x55, 0x49, 0x54, 0x0A};
constexpr std::size_t kFixedPart = 16;  // signature, command, family, length
constexpr unsigned char kVersion2Local = 0x20;
constexpr unsigned char kVersion2Proxy = 0x21;
constexpr unsigned char kTcpOverIpv4 = 0x11;
constexpr unsigned char kTcpOverIpv6 = 0x21;
constexpr std::size_t kIpv4Addresses = 12;
constexpr std::size_t kIpv6Addresses = 36;

void AppendBytes(std::string& out, const void* data, std::size_t size) {
    out.append(static_cast<const char*>(data), size);
}

void AppendShort(std::string& out, unsigned value) {
    out.push_back(static_cast<char>(value >> 8));
    out.push_back(static_cast<char>(value & 0xFF));
}

ProxyHeader Malformed() {
    ProxyHeader header;
    header.status = ProxyHeader::Status::kMalformed;
    return header;
}

}  // namespace

std::string EncodeProxyHeader(const sockaddr& client, const sockaddr& server) {
    if (client.sa_family != server.sa_family) return {};
    std::string out(reinterpret_cast<const char*>(kSignature), sizeof kSignature);
    out.push_back(static_cast<char>(kVersion2Proxy));
    if (client.sa_family == AF_INET) {
        const auto& from = reinterpret_cast<const sockaddr_in&>(client);
        const auto& to = reinterpret_cast<const sockaddr_in&>(server);
        out.push_back(static_cast<char>(kTcpOverIpv4));
        AppendShort(out, kIpv4Addresses);
        AppendBytes(out, &from.sin_addr, 4);
        AppendBytes(out, &to.sin_addr, 4);
        AppendBytes(out, &from.sin_port, 2);
        AppendBytes(out, &to.sin_port, 2);
    } else if (client.sa_family == AF_INET6) {
        const auto& from = reinterpret_cast<const sockaddr_in6&>(client);
        const auto& to = reinterpret_cast<const sockaddr_in6&>(server);
        out.push_back(static_cast<char>(kTcpOverIpv6));
        AppendShort(out, kIpv6Addresses);
        AppendBytes(out, &from.sin6_addr, 16);
        AppendBytes(out, &to.sin6_addr, 16);
        AppendBytes(out, &from.sin6_port, 2);
        AppendBytes(out, &to.sin6_port, 2);
    } else {
        return {};
    }
    return out;
}

ProxyHeader ParseProxyHeader(const unsigned char* data, std::size_t size) {
    ProxyHeader header;
    const std::size_t signature = size < sizeof kSignature ? size : sizeof kSignature;
    if (std::memcmp(data, kSignature, signature) != 0) return Malformed();
    if (size < kFixedPart) return header;
    const unsigned char command = data[12];
    const unsigned char family = data[13];
    const std::size_t length = (std::size_t{data[14]} << 8) | data[15];
    if (command != kVersion2Local && command != kVersion2Proxy) return Malformed();
    if (size < kFixedPart + length) return header;
    const unsigned char* addresses = data + kFixedPart;
    if (command == kVersion2Proxy && family == kTcpOverIpv4) {
        if (length < kIpv4Addresses) return Malformed();
        auto& client = reinterpret_cast<sockaddr_in&>(header.client);
        client.sin_family = AF_INET;
        std::memcpy(&client.sin_addr, addresses, 4);
        std::memcpy(&client.sin_port, addresses + 8, 2);
        header.hasClient = true;
    } else if (command == kVersion2Proxy && family == kTcpOverIpv6) {
        if (length < kIpv6Addresses) return Malformed();
        auto& client = reinterpret_cast<sockaddr_in6&>(header.client);
        client.sin6_family = AF_INET6;
        std::memcpy(&client.sin6_addr, addresses, 16);
        std::memcpy(&client.sin6_port, addresses + 32, 2);
        header.hasClient = true;
    }
    header.status = ProxyHeader::Status::kComplete;
    header.length = kFixedPart + length;
    return header;
}

}  // namespace farlink
