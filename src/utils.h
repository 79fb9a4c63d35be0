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
