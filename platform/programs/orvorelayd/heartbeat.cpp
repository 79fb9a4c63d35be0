#include "heartbeat.h"

namespace orvorelayd {
namespace {

using namespace ORVO::Relay;

constexpr long kConnectTimeoutSeconds = 5;
constexpr long kTimeoutSeconds = 10;

}  // namespace

LinkState LinkStateFromTransport(RELAYD_RET transportError) {
    switch (transportError) {
        case RELAYD_ERR_RESOLVE:
            return {kStatusConnecting, "err_resolv"};
        case RELAYD_ERR_NETWORK:
        case RELAYD_ERR_TIMEOUT:
        case RELAYD_ERR_TLS:
            return {kStatusConnecting, "err_network"};
        default:
            return {kStatusConnecting, "err_server"};
    }
}

LinkState LinkStateFromAnswer(RELAYSERVER_ERR serverError) {
    switch (serverError) {
        case RELAYSERVER_OK:
            return {"connected", ""};
        case RELAYSERVER_ERR_VIOLATION:
            return {kStatusConnecting, "err_violation"};
        default:
            return {kStatusConnecting, "err_server"};
    }
}

LinkState SendHeartbeat(const RelaydConf& conf) {
    if (conf.serverId.empty()) return {"unregistered", ""};
    Json::Value body(Json::objectValue);
    body["version"] = 1;
    body["command"] = "heartbeat";
    body["serverID"] = conf.serverId;
    const std::string url = conf.serverControl.GetUrl(nullptr);
    Request request(url, body, true);
    if (!request.SetConnectionTimeout(kConnectTimeoutSeconds) ||
        !request.SetTimeout(kTimeoutSeconds)) {
        return {kStatusConnecting, "err_server"};
    }
    if (!request.Send()) return LinkStateFromTransport(request.GetError());
    Json::Value answer;
    if (!request.GetResponse(answer)) return {kStatusConnecting, "err_server"};
    return LinkStateFromAnswer(ParseServerError(answer));
}

}  // namespace orvorelayd
