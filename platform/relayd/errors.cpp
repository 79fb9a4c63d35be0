// Decoding of control-server error numbers and the texts of result codes.
#include <orvo/relayd.h>

#include "request_internal.h"

namespace ORVO {
namespace Relay {

RELAYSERVER_ERR ParseServerError(const Json::Value& response) {
    if (!response.isObject()) {
        return RELAYSERVER_ERR_MALFORMED;
    }
    if (!response.isMember("errno")) {
        return RELAYSERVER_OK;
    }
    const Json::Value& error = response["errno"];
    // isInt() also accepts integral reals (3.0) but refuses bools, strings,
    // null and numbers outside int: an answer we cannot read is malformed,
    // never silently a success.
    if (!error.isInt()) {
        return RELAYSERVER_ERR_MALFORMED;
    }
    return static_cast<RELAYSERVER_ERR>(error.asInt());
}

RELAYD_RET RespErrMap(RELAYSERVER_ERR error) {
    switch (error) {
        case RELAYSERVER_OK:
            return RELAYD_OK;
        case RELAYSERVER_ERR_AUTH:
            return RELAYD_ERR_AUTH;
        case RELAYSERVER_ERR_BUSY:
            return RELAYD_ERR_SERVER_BUSY;
        case RELAYSERVER_ERR_APIKEY_EXPIRED:
            return RELAYD_ERR_APIKEY_EXPIRED;
        case RELAYSERVER_ERR_NOT_REGISTERED:
            return RELAYD_ERR_NOT_REGISTERED;
        case RELAYSERVER_ERR_INTERNAL:
            return RELAYD_ERR_SERVER_INTERNAL;
        case RELAYSERVER_ERR_UNSUPPORTED_VERSION:
        case RELAYSERVER_ERR_UNKNOWN_COMMAND:
            return RELAYD_ERR_UNSUPPORTED;
        case RELAYSERVER_ERR_BAD_REQUEST:
            return RELAYD_ERR_INVALID_ARG;
        case RELAYSERVER_ERR_VIOLATION:
            return RELAYD_ERR_VIOLATION;
        case RELAYSERVER_ERR_MALFORMED:
            return RELAYD_ERR_BAD_RESPONSE;
        default:
            // The alias-only errors and numbers this library does not know.
            return RELAYD_ERR_UNKNOWN;
    }
}

const char* GetErrorStr(RELAYD_RET ret) {
    switch (ret) {
        case RELAYD_OK:
            return "success";
        case RELAYD_ERR_UNKNOWN:
            return "unknown error";
        case RELAYD_ERR_INVALID_ARG:
            return "invalid argument";
        case RELAYD_ERR_CONFIG:
            return "configuration error";
        case RELAYD_ERR_DAEMON:
            return "relay daemon error";
        case RELAYD_ERR_AUTH:
            return "authentication refused";
        case RELAYD_ERR_RESOLVE:
            return "cannot resolve host";
        case RELAYD_ERR_NETWORK:
            return "network error";
        case RELAYD_ERR_SERVER_BUSY:
            return "server busy";
        case RELAYD_ERR_BAD_RESPONSE:
            return "bad response";
        case RELAYD_ERR_NOT_REGISTERED:
            return "server not registered";
        case RELAYD_ERR_TIMEOUT:
            return "timed out";
        case RELAYD_ERR_TLS:
            return "TLS error";
        case RELAYD_ERR_SERVER_INTERNAL:
            return "server internal error";
        case RELAYD_ERR_UNSUPPORTED:
            return "unsupported by server";
        case RELAYD_ERR_APIKEY_EXPIRED:
            return "api key expired";
        case RELAYD_ERR_VIOLATION:
            return "service policy violation";
        case RELAYD_RET_UNSET:
            return "no result";
    }
    return "unknown error";
}

namespace detail {

ALIAS_RET AliasRetFromServerError(RELAYSERVER_ERR error) {
    switch (error) {
        case RELAYSERVER_OK:
            return ALIAS_OK;
        case RELAYSERVER_ERR_ALIAS_TAKEN:
            return ALIAS_ERR_TAKEN;
        case RELAYSERVER_ERR_ALIAS_RESERVED:
            return ALIAS_ERR_RESERVED;
        case RELAYSERVER_ERR_BAD_REQUEST:
            return ALIAS_ERR_PARAM;
        case RELAYSERVER_ERR_ACCOUNT_AUTH:
            return ALIAS_ERR_AUTH;
        case RELAYSERVER_ERR_ACCOUNT_LIMIT:
            return ALIAS_ERR_ACCOUNT_LIMIT;
        case RELAYSERVER_ERR_NOT_REGISTERED:
            return ALIAS_ERR_NOT_REGISTERED;
        case RELAYSERVER_ERR_INTERNAL:
            return ALIAS_ERR_INTERNAL;
        case RELAYSERVER_ERR_ACCOUNT_UNVERIFIED:
            return ALIAS_ERR_ACCOUNT_UNVERIFIED;
        case RELAYSERVER_ERR_APIKEY_EXPIRED:
            return ALIAS_ERR_APIKEY_EXPIRED;
        case RELAYSERVER_ERR_VIOLATION:
            return ALIAS_ERR_VIOLATION;
        default:
            return ALIAS_ERR_UNKNOWN;
    }
}

ALIAS_RET AliasRetFromTransport(RELAYD_RET error) {
    switch (error) {
        case RELAYD_ERR_RESOLVE:
            return ALIAS_ERR_RESOLVE;
        case RELAYD_ERR_NETWORK:
        case RELAYD_ERR_TIMEOUT:
            return ALIAS_ERR_NETWORK;
        default:
            return ALIAS_ERR_UNKNOWN;
    }
}

const char* AliasRetText(ALIAS_RET ret) {
    switch (ret) {
        case ALIAS_OK:
            return "success";
        case ALIAS_ERR_UNKNOWN:
            return "unknown error";
        case ALIAS_ERR_TAKEN:
            return "alias already taken";
        case ALIAS_ERR_RESERVED:
            return "alias reserved";
        case ALIAS_ERR_PARAM:
            return "invalid parameter";
        case ALIAS_ERR_RESOLVE:
            return "cannot resolve host";
        case ALIAS_ERR_NETWORK:
            return "network error";
        case ALIAS_ERR_AUTH:
            return "account authentication failed";
        case ALIAS_ERR_ACCOUNT_LIMIT:
            return "account alias limit reached";
        case ALIAS_ERR_NOT_REGISTERED:
            return "server not registered";
        case ALIAS_ERR_INTERNAL:
            return "server internal error";
        case ALIAS_ERR_ACCOUNT_UNVERIFIED:
            return "account not verified";
        case ALIAS_ERR_APIKEY_EXPIRED:
            return "api key expired";
        case ALIAS_ERR_VIOLATION:
            return "service policy violation";
        case ALIAS_RET_UNSET:
            return nullptr;
    }
    return nullptr;
}

}  // namespace detail
}  // namespace Relay
}  // namespace ORVO
