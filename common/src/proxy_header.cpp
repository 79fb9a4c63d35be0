#include <farlink/proxy_header.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstring>

namespace farlink {

namespace {

constexpr unsigned char kSignature[12] = {0x0D, 0x0A, 0x0D, 0x0A, 0x00, 0x0D,
                                          0x0A, 0x51, 0x55, 0x49, 0x54, 0x0A};
constexpr std::size_t kFixedPart = 16;  // signature, command, family, length
constexpr unsigned char kVersion2Local = 0x20;
constexpr unsigned char kVersion2Proxy = 0x21;

// Where a family's address and port sit in its socket address, and its
// code in a header; a header's address block holds both addresses, then
// both ports.
struct FamilyLayout {
    int family;
    unsigned char code;  // TCP over the family
    std::size_t addressSize;
    std::size_t addressOffset;
    std::size_t portOffset;
};
constexpr FamilyLayout kLayouts[] = {
    {AF_INET, 0x11, 4, offsetof(sockaddr_in, sin_addr), offsetof(sockaddr_in, sin_port)},
    {AF_INET6, 0x21, 16, offsetof(sockaddr_in6, sin6_addr), offsetof(sockaddr_in6, sin6_port)},
};

std::size_t BlockSize(const FamilyLayout& layout) { return 2 * layout.addressSize + 4; }

const FamilyLayout* LayoutOf(int family) {
    for (const FamilyLayout& layout : kLayouts)
        if (layout.family == family) return &layout;
    return nullptr;
}

const FamilyLayout* LayoutOfCode(unsigned char code) {
    for (const FamilyLayout& layout : kLayouts)
        if (layout.code == code) return &layout;
    return nullptr;
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
    const FamilyLayout* layout = LayoutOf(client.sa_family);
    if (layout == nullptr || client.sa_family != server.sa_family) return {};
    std::string out(reinterpret_cast<const char*>(kSignature), sizeof kSignature);
    out.push_back(static_cast<char>(kVersion2Proxy));
    out.push_back(static_cast<char>(layout->code));
    AppendShort(out, BlockSize(*layout));
    const auto* from = reinterpret_cast<const char*>(&client);
    const auto* to = reinterpret_cast<const char*>(&server);
    out.append(from + layout->addressOffset, layout->addressSize);
    out.append(to + layout->addressOffset, layout->addressSize);
    out.append(from + layout->portOffset, 2);
    out.append(to + layout->portOffset, 2);
    return out;
}

ProxyHeader ParseProxyHeader(const unsigned char* data, std::size_t size) {
    ProxyHeader header;
    const std::size_t signature = size < sizeof kSignature ? size : sizeof kSignature;
    if (std::memcmp(data, kSignature, signature) != 0) return Malformed();
    if (size < kFixedPart) return header;
    const unsigned char command = data[12];
    const std::size_t length = (std::size_t{data[14]} << 8) | data[15];
    if (command != kVersion2Local && command != kVersion2Proxy) return Malformed();
    if (size < kFixedPart + length) return header;
    // Other families (UDP, UNIX, unspecified) name no TCP client.
    if (const FamilyLayout* layout = command == kVersion2Proxy ? LayoutOfCode(data[13]) : nullptr) {
        if (length < BlockSize(*layout)) return Malformed();
        const unsigned char* addresses = data + kFixedPart;
        auto* client = reinterpret_cast<unsigned char*>(&header.client);
        header.client.ss_family = static_cast<sa_family_t>(layout->family);
        std::memcpy(client + layout->addressOffset, addresses, layout->addressSize);
        std::memcpy(client + layout->portOffset, addresses + 2 * layout->addressSize, 2);
        header.hasClient = true;
    }
    header.status = ProxyHeader::Status::kComplete;
    header.length = kFixedPart + length;
    return header;
}

}  // namespace farlink
