// What both versions of set_server_alias do alike. Nothing here logs under a
// source name of its own: each version's lines carry its own source, so these
// helpers say where they stopped and the handler logs it, or has it logged
// at its own line.
#pragma once

#include <json/value.h>
#include <orvo/relayd.h>

#include <string>

// A letter, then letters, digits and hyphens.
bool IsValidServerAlias(const std::string& alias);

// True when the daemon is not running or reports no server ID: the control
// server must give one before an alias can be asked for.
bool NeedsServerId();

// The API code for a failed discovery or registration. Both can fail with a
// relay result that still reads as success (an answer without "host" or
// "serverID"), and the success code is never an error answer.
int RelayFailureCode(ORVO::Relay::RELAYD_RET ret);

// The part of the alias request's body both versions send: the relay
// configuration's data for it and `force`.
Json::Value AliasRequestBody(const ORVO::Relay::RelaydConf& conf, bool force);

enum class AliasStop {
    kNone,        // granted and recorded
    kSetRequest,  // the body was refused before sending
    kRefused,     // the control server's outcome was not success
    kWriteConfig,
    kNotify,
};

struct AliasResult {
    int code;  // the API code; 2908 for success
    AliasStop stop;
    ORVO::Relay::ALIAS_RET outcome;
    std::string outcomeText;
};

// Sends the alias request with `body` and, once the control server grants
// `alias`, records it: the alias section of `conf`'s file, the alias status
// and the daemon's notice. The alias stays recorded when only the notice
// fails.
AliasResult RequestServerAlias(ORVO::Relay::RelaydConf& conf, const std::string& alias,
                               const Json::Value& body);

// Logs where RequestServerAlias stopped under the calling handler's source
// and line, so that each version's lines stay its own.
void LogAliasStop(const char* source, int line, const AliasResult& result, const std::string& alias,
                  const Json::Value& body);
