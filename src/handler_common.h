// What every handler does the same way: reading typed parameters and giving
// the one answer. Nothing here logs under a source of its own: a helper
// either returns the step that failed for the handler to log in its own
// words, or logs at the source and line the handler passes in.
#pragma once

#include <orvo/relayd.h>
#include <orvo/webapi.h>

#include <string>

constexpr char kRelaydConfPath[] = "/usr/orvo/etc/orvorelayd/orvorelayd.conf";
constexpr char kMiscConfPath[] = "/usr/orvo/etc/orvorelayd/misc.conf";
constexpr char kServicesConfPath[] = "/usr/orvo/etc/orvorelayd/services.conf";

// A parameter of the wrong JSON type counts as missing: the handler answers
// it as an invalid parameter rather than letting a conversion throw.
bool ReadBoolParam(const ORVO::APIRequest& request, const char* name, bool& value);
bool ReadStringParam(const ORVO::APIRequest& request, const char* name, std::string& value);

// Answers success (with `data`) when `code` is the module's success code and
// the error `code` otherwise.
void Finish(ORVO::APIResponse* response, int code, const Json::Value& data = Json::Value());

// A file may hold any JSON, and asking an array or a scalar for a member
// throws: these look only into objects.
bool HasMember(const Json::Value& document, const char* key);
Json::Value MemberOrNull(const Json::Value& document, const char* key);

// The administration interface sends a misc.conf setting as the request's
// whole parameter object, so that object is what is stored under `key`.
// False, with nothing stored, when the parameter `required` is absent.
bool OverwriteMiscItem(const ORVO::APIRequest& request, const char* required, const char* key,
                       ORVO::Relay::MiscConf& misc);

// Writes the relay configuration file afresh from the library's defaults.
bool GenerateRelaydConf();

// What the get methods of every version read before they answer.
struct RelaySettings {
    std::string serverId;
    std::string status = "unknown";
    std::string error;
    ORVO::Relay::AliasConf alias;
    ORVO::Relay::ServerConf server{nullptr, nullptr};
};

// The step of LoadRelaySettings that failed. The steps log nothing of their
// own: each version says in its own words, from its own file, what failed.
enum class SettingsStep {
    kDone,
    kDaemonStatus,  // the daemon's status could not be read
    kGenerate,      // the unreadable configuration could not be regenerated
    kReread,        // the regenerated configuration still could not be read
    kSections,      // "server_alias" or "server_control" missing or refused
};

// Reads the daemon's status, asks the daemon to refresh the alias, and loads
// the alias and register-site sections of the relay configuration, which is
// regenerated once when it cannot be read.
SettingsStep LoadRelaySettings(RelaySettings& settings);

// The answer of the get methods: whether the relay is enabled and the portal
// domain (read as root, the privileged section logging at `source`:`line`)
// added to `settings` and `account`. 2908, or 2900 when the portal domain
// cannot be read.
int ReportRelaySettings(const char* source, int line, const RelaySettings& settings,
                        const std::string& account, Json::Value& body);

// The "set" method of versions 1 and 2: starts or stops the relay daemon as
// the parameter "enabled" says. Its lines are logged under the calling
// handler's source and line.
int SetRelayEnabled(const ORVO::APIRequest& request, const char* source, int line);
