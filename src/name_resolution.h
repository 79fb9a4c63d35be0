// Name resolution to one IPv4 and one IPv6 text (the last of each family in
// the resolver's answer). Both log their failures.
#pragma once

#include <string>

// Bounded by `timeout` seconds per try and `attempts` tries, with a private
// event loop built and torn down within the call. An answer the resolver had
// at once (a numeric address, the hosts file) leaves `ipv4` and `ipv6` as
// they were and still counts as success.
bool DNSResolveWithTimeout(std::string host, std::string& ipv4, std::string& ipv6, int timeout,
                           int attempts);
// The system resolver, blocking; a family without an address leaves its
// output as it was.
bool DNSResolve(const std::string& host, std::string& ipv4, std::string& ipv6);
