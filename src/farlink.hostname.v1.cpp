// ORVO.Core.Farlink.Hostname version 1.
#include <string>

#include "api_table.h"
#include "handler_common.h"
#include "utils.h"

namespace {
constexpr char kLogSource[] = "farlink.hostname.v1";
}  // namespace

void GetIP_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    std::string hostname;
    if (!ReadStringParam(*request, "hostname", hostname)) {
        FARLINK_LOG("Invalid parameter");
        return Finish(response, kApiErrInvalidParam);
    }
    std::string ipv4, ipv6;
    // A name that resolves to no address at all is as useless to the caller
    // as one that does not resolve.
    if (!DNSResolve(hostname, ipv4, ipv6) || (ipv4.empty() && ipv6.empty())) {
        return Finish(response, kApiErrNetwork);
    }
    Json::Value result(Json::objectValue);
    result["ipv4"] = ipv4;
    result["ipv6"] = ipv6;
    Finish(response, kApiSuccess, result);
}
