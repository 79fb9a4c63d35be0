// Host utilities of the module: daemon control, configuration files, control
// server access and account lookup. Every function logs its own failures.
#pragma once

#include <event2/util.h>
#include <json/value.h>
#include <orvo/relayd.h>

#include <string>

#include "critical_section.h"
#include "log.h"

// Relay daemon control. Start, stop and reload return 0 or -1.
int OrvorelaydServiceStart();
int OrvorelaydServiceStop();
bool OrvorelaydServiceIsEnabled();
int OrvorelaydServiceReload();
// Makes a running daemon re-read its files; 0 also when it is not running.
int NotifyOrvorelayd();
bool GetDaemonStatus(std::string& serverId, std::string& status, std::string& error);
int UpdateAlias();
void HandleApiKeyExpired();
bool EnableFarlinkSNI(std::string& domain);
bool DisableFarlinkSNI();
bool IsFailoverEnable();

// Starts the daemon when `enabled`, stops it otherwise; 0 or -1.
int SwitchRelay(bool enabled);

// Configuration files. Every write goes through the relay library's objects
// inside a privileged section; a file that does not parse is moved aside to
// "<path>.bad" (deleted if that fails).
bool ReadJsonFile(const std::string& path, Json::Value& value);
// True only when the file was moved to "<path>.bad".
bool RenameBadConfig(const std::string& path);
bool WriteJsonFile(const char* path, Json::Value value);
bool WriteConfig(ORVO::Relay::Config* config);
// Loads `document[key]` into `config`; false, with `config` untouched, when
// the document is not an object or lacks the key.
bool SetConfig(Json::Value document, const std::string& key, ORVO::Relay::Config& config);
// 2908 when written and the daemon told, 2900 otherwise.
int WriteMiscConfigToFile(ORVO::Relay::MiscConf& config);
void GenerateServiceConfig();

// Name resolution to one IPv4 and one IPv6 text (the last of each family in
// the resolver's answer).
struct event_base;

struct DnsCallbackContext {
    event_base* base;
    std::string ipv4;
    std::string ipv6;
    bool succeeded;
};

// Completion of evdns_getaddrinfo: takes and frees `list`, ends the loop.
void dnsEventCallBack(int result, evutil_addrinfo* list, void* context);
// Bounded by `timeout` seconds per try and `attempts` tries. An answer the
// resolver had at once (a numeric address, the hosts file) leaves `ipv4` and
// `ipv6` as they were and still counts as success.
bool DNSResolveWithTimeout(std::string host, std::string& ipv4, std::string& ipv6, int timeout,
                           int attempts);
// The system resolver, blocking; a family without an address leaves its
// output as it was.
bool DNSResolve(const std::string& host, std::string& ipv4, std::string& ipv6);

// Control-server access: the register site and the server ID. Relay results
// travel in `ret`, which callers start at kRelayRetUnset and translate with
// MapRelayErrorCode.
constexpr ORVO::Relay::RELAYD_RET kRelayRetUnset = static_cast<ORVO::Relay::RELAYD_RET>(255);

// One "get_register_site" query to `url`. True when an answer came and the
// server reported no error; `ret` is left alone when the request could not
// be prepared.
bool GetRegisterSiteAPI(const std::string& url, Json::Value& response,
                        ORVO::Relay::RELAYD_RET& ret);
// Whether a register-site answer names its host as a string.
bool HasRegisterSiteHost(const Json::Value& answer);
// Asks the primary global control server, and the secondary one when
// fail-over is enabled; 2908 for an answer with a host.
int GetRegisterSiteWithCn(Json::Value& response);
// Asks the configuration's global control server and records the answer as
// the register site, persisting its host.
bool GetRegisterSite(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret);
// One "register" exchange with the configuration's credentials; 255 when the
// request could not be prepared.
ORVO::Relay::RELAYD_RET SendRegisterServerId(ORVO::Relay::RelaydConf& conf, Json::Value& response);
// Registers and, on success, stores the server ID in `conf` and its file.
bool RegisterServerId(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret);
// The MD5 digest of `text` as 32 lowercase hex digits; `out` must hold 65
// bytes although 64 is the size checked. 0 or -1.
int GetMd5String(const char* text, char* out, int outSize);

// Account lookup: the kivo account bound to the server, read as root. The
// results are the account library's, unchanged; callers ask ORVOKIVOErrGet()
// why a read failed.
struct _tag_kivo_INFO_;

int OrvoAccountGet(_tag_kivo_INFO_* info);
int OrvoAccountQueryInfo(Json::Value& info);
// Starts the account tool in the background so that a later read finds fresh
// data ("--cache": the cached data is good enough); negative when the tool
// could not be started.
int OrvoAccountQueryInfoBackground(bool useCache);
