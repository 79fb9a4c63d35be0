// Control-server access: the register site, the server ID and the MD5 text of
// a password. Relay results travel in `ret`, which callers start at
// ORVO::Relay::RELAYD_RET_UNSET and translate with MapRelayErrorCode. Every
// function logs its own failures.
#pragma once

#include <json/value.h>
#include <orvo/relayd.h>

#include <string>

// One "get_register_site" query to `url`. True when an answer came and the
// server reported no error; `ret` is left alone when the request could not
// be prepared.
bool GetRegisterSiteAPI(const std::string& url, Json::Value& response,
                        ORVO::Relay::RELAYD_RET& ret);
// Whether a register-site answer names its host as a string.
bool HasRegisterSiteHost(const Json::Value& answer);
// Asks the primary global control server, and the secondary one when
// fail-over is enabled; kApiSuccess for an answer with a host.
int GetRegisterSiteWithCn(Json::Value& response);
// Asks the configuration's global control server and records the answer as
// the register site, persisting its host.
bool GetRegisterSite(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret);
// One "register" exchange with the configuration's credentials;
// RELAYD_RET_UNSET when the request could not be prepared.
ORVO::Relay::RELAYD_RET SendRegisterServerId(ORVO::Relay::RelaydConf& conf, Json::Value& response);
// Registers and, on success, stores the server ID in `conf` and its file.
bool RegisterServerId(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret);
// The MD5 digest of `text` as 32 lowercase hex digits; `out` must hold 65
// bytes although 64 is the size checked. 0 or -1.
int GetMd5String(const char* text, char* out, int outSize);
