#include "name_resolution.h"

#include <arpa/inet.h>
#include <event2/dns.h>
#include <event2/event.h>
#include <netdb.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "log.h"

namespace {

constexpr const char* kLogSource = kUtilsLogSource;

struct EventBaseFree {
    void operator()(event_base* base) const { event_base_free(base); }
};
struct EvdnsBaseFree {
    // Requests still pending are dropped without their callbacks.
    void operator()(evdns_base* dns) const { evdns_base_free(dns, 0); }
};
struct AddrinfoFree {
    void operator()(evutil_addrinfo* list) const { evutil_freeaddrinfo(list); }
};
struct SystemAddrinfoFree {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

// Each entry replaces the text of its family, so the last one of each stays.
void TakeAddresses(const addrinfo* list, std::string& ipv4, std::string& ipv6) {
    char text[INET6_ADDRSTRLEN] = {};
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_addr == nullptr) continue;
        if (entry->ai_family == AF_INET) {
            const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
            inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text));
            ipv4 = text;
        } else {
            const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
            inet_ntop(entry->ai_family, &address->sin6_addr, text, sizeof(text));
            ipv6 = text;
        }
    }
}

addrinfo StreamHints() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    return hints;
}

struct DnsCallbackContext {
    event_base* base;
    std::string ipv4;
    std::string ipv6;
    bool succeeded;
};

// Completion of evdns_getaddrinfo: takes and frees `list`, ends the loop.
void dnsEventCallBack(int result, evutil_addrinfo* list, void* context) {
    auto* dns = static_cast<DnsCallbackContext*>(context);
    {
        const std::unique_ptr<evutil_addrinfo, AddrinfoFree> owned(list);
        if (result != 0) {
            dns->succeeded = false;
            FARLINK_LOG("Fail to resolve, evdns error: %s", evutil_gai_strerror(result));
        } else {
            TakeAddresses(list, dns->ipv4, dns->ipv6);
            dns->succeeded = true;
        }
    }
    event_base_loopexit(dns->base, nullptr);
}

}  // namespace

bool DNSResolveWithTimeout(std::string host, std::string& ipv4, std::string& ipv6, int timeout,
                           int attempts) {
    // Declared in this order so that the DNS base is freed before its loop.
    const std::unique_ptr<event_base, EventBaseFree> base(event_base_new());
    const std::unique_ptr<evdns_base, EvdnsBaseFree> dns(
        base ? evdns_base_new(base.get(), EVDNS_BASE_INITIALIZE_NAMESERVERS) : nullptr);
    if (!dns) {
        FARLINK_LOG("Fail to requset evdns resolve");
        return false;
    }
    char option[255];
    std::memset(option, 0, sizeof(option));
    std::snprintf(option, sizeof(option), "%d", timeout);
    evdns_base_set_option(dns.get(), "timeout", option);
    std::snprintf(option, sizeof(option), "%d", attempts);
    evdns_base_set_option(dns.get(), "attempts", option);
    // A name server counts as down after as many time-outs as there are tries.
    evdns_base_set_option(dns.get(), "max-timeouts", option);

    DnsCallbackContext context{base.get(), "", "", false};
    const evutil_addrinfo hints = StreamHints();
    if (evdns_getaddrinfo(dns.get(), host.c_str(), nullptr, &hints, dnsEventCallBack, &context) !=
        nullptr) {
        event_base_dispatch(base.get());
        ipv4 = context.ipv4;
        ipv6 = context.ipv6;
    } else {
        // Also the way of an answer the resolver had at once: the callback
        // has run already and its addresses are not handed on.
        FARLINK_LOG("Fail to requset evdns resolve");
    }
    return context.succeeded;
}

bool DNSResolve(const std::string& host, std::string& ipv4, std::string& ipv6) {
    const addrinfo hints = StreamHints();
    addrinfo* list = nullptr;
    const int result = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    const std::unique_ptr<addrinfo, SystemAddrinfoFree> owned(list);
    if (result != 0) {
        FARLINK_LOG("failed to resolve hostname \"%s\": %s", host.c_str(), gai_strerror(result));
        return false;
    }
    TakeAddresses(list, ipv4, ipv6);
    return true;
}
