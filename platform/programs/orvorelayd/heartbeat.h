// One heartbeat exchange with the register site and the words it yields.
#pragma once

#include <orvo/relayd.h>

#include <string>

namespace orvorelayd {

struct LinkState {
    std::string status;  // "connecting", "connected", "unregistered"
    std::string error;   // "", "err_resolv", "err_network", "err_violation", "err_server"
};

constexpr const char kStatusConnecting[] = "connecting";

// Without a server ID there is nothing to report to the register site, and
// no request is made.
LinkState SendHeartbeat(const ORVO::Relay::RelaydConf& conf);

// The words for an exchange that failed with `transportError` (non-zero) or
// answered with `serverError`.
LinkState LinkStateFromTransport(ORVO::Relay::RELAYD_RET transportError);
LinkState LinkStateFromAnswer(ORVO::Relay::RELAYSERVER_ERR serverError);

}  // namespace orvorelayd
