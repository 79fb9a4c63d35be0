#include "utils.h"

#include <arpa/inet.h>
#include <event2/dns.h>
#include <event2/event.h>
#include <json/reader.h>
#include <netdb.h>
#include <openssl/md5.h>
#include <orvo/cloudservice.h>
#include <orvo/core.h>
#include <orvo/kivo.h>
#include <orvo/systemd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include "api_table.h"

namespace {

constexpr char kLogSource[] = "utils";

constexpr char kRelaydProgram[] = "/usr/orvo/sbin/orvorelayd";
constexpr char kRelaydService[] = "orvorelayd";
constexpr char kHostInfoFile[] = "/etc/orvoinfo.conf";
constexpr char kFailoverKey[] = "farlink_enable_failover";
constexpr int kApiKeyExpiredAction = 2;

constexpr int kAuthDebug = LOG_AUTH | LOG_DEBUG;
constexpr int kAuthError = LOG_AUTH | LOG_ERR;

void LogSwitched(const char* source, int line, const char* label, int target) {
    FARLINK_LOG_AT(kAuthDebug, source, line, "WARNING: set%s(%d, %d, %d)", label, -1, target, -1);
}

// Logs a failed switch with the error text of errno and leaves errno at 1,
// the value callers of a failed section see.
void LogSwitchFailed(const char* source, int line, const char* label, int target,
                     const char* step) {
    char message[1024];
    std::memset(message, 0, sizeof(message));
    const char* text = strerror_r(errno, message, sizeof(message));
    FARLINK_LOG_AT(kAuthError, source, line, "ERROR: set%s(%d, %d, %d) [%s]", label, -1, target, -1,
                   text);
    errno = EPERM;
    FARLINK_LOG_AT(kAuthError, source, line, "ERROR: %s", step);
}

struct EventBaseFree {
    void operator()(event_base* base) const { event_base_free(base); }
};
struct EvdnsBaseFree {
    // Requests still pending are dropped without their callbacks.
    void operator()(evdns_base* dns) const { evdns_base_free(dns, 0); }
};
struct AddrinfoFree {
    void operator()(evutil_addrinfo* list) const { evutil_freeaddrinfo(list); }
};
struct SystemAddrinfoFree {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

// Each entry replaces the text of its family, so the last one of each stays.
void TakeAddresses(const addrinfo* list, std::string& ipv4, std::string& ipv6) {
    char text[INET6_ADDRSTRLEN] = {};
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_addr == nullptr) continue;
        if (entry->ai_family == AF_INET) {
            const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
            inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text));
            ipv4 = text;
        } else {
            const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
            inet_ntop(entry->ai_family, &address->sin6_addr, text, sizeof(text));
            ipv6 = text;
        }
    }
}

// Leaving a privileged section clears errno, so the rename's own is kept for
// the log line.
bool MoveFile(const std::string& from, const std::string& to, int& error) {
    if (std::rename(from.c_str(), to.c_str()) == 0) return true;
    error = errno;
    return false;
}

addrinfo StreamHints() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    return hints;
}

bool SwitchGroup(gid_t gid) { return setresgid(-1, gid, -1) == 0; }
bool SwitchUser(uid_t uid) { return setresuid(-1, uid, -1) == 0; }

}  // namespace

SavedIds EnterCriticalSection(const char* source, int line) {
    const SavedIds saved{geteuid(), getegid()};
    if (saved.egid != 0) {
        if (!SwitchGroup(0)) {
            LogSwitchFailed(source, line, "resgid", 0, "ENTERCriticalSection");
            return saved;
        }
        LogSwitched(source, line, "resgid", 0);
    }
    if (saved.euid != 0) {
        if (!SwitchUser(0)) {
            LogSwitchFailed(source, line, "resuid", 0, "ENTERCriticalSection");
            return saved;
        }
        LogSwitched(source, line, "resuid", 0);
    }
    errno = 0;
    return saved;
}

// The user goes back to root first: a process that has already given up its
// user id could no longer set its group.
void LeaveCriticalSection(const char* source, int line, SavedIds saved) {
    const uid_t currentUid = geteuid();
    const gid_t currentGid = getegid();
    const bool userChanged = currentUid != saved.euid;
    if (userChanged) {
        if (!SwitchUser(0)) {
            LogSwitchFailed(source, line, "resuid", 0, "LEAVECriticalSection");
            return;
        }
        LogSwitched(source, line, "resuid", 0);
    } else if (currentGid == saved.egid) {
        errno = 0;
        return;
    }
    if (currentGid != saved.egid) {
        if (!SwitchGroup(saved.egid)) {
            LogSwitchFailed(source, line, "resgid", static_cast<int>(saved.egid),
                            "LEAVECriticalSection");
            return;
        }
        if (saved.egid == 0) LogSwitched(source, line, "resgid", 0);
        if (!userChanged) {
            errno = 0;
            return;
        }
    }
    if (!SwitchUser(saved.euid)) {
        LogSwitchFailed(source, line, "resuid", static_cast<int>(saved.euid),
                        "LEAVECriticalSection");
        return;
    }
    if (saved.euid == 0) LogSwitched(source, line, "resuid", 0);
    errno = 0;
}

int OrvorelaydServiceStart() {
    int result = 0;
    {
        CriticalSection section(kLogSource, __LINE__);
        if (OLIBCExec(kRelaydProgram, "--farlink", "on", nullptr, nullptr) < 0) {
            FARLINK_LOG("fail to start farlink service");
            result = -1;
        }
    }
    return result;
}

int OrvorelaydServiceStop() {
    int result = 0;
    {
        CriticalSection section(kLogSource, __LINE__);
        if (OLIBCExec(kRelaydProgram, "--farlink", "off", nullptr, nullptr) < 0) {
            FARLINK_LOG("fail to stop farlink service");
            result = -1;
        }
    }
    return result;
}

bool OrvorelaydServiceIsEnabled() {
    char status[32];
    std::memset(status, 0, sizeof(status));
    FILE* stream = OLIBCPopen(kRelaydProgram, "r", "--farlink", "status", nullptr);
    if (stream == nullptr) {
        FARLINK_LOG("OLIBCPopen failed(%s)\n", std::strerror(errno));
        return false;
    }
    if (std::fgets(status, sizeof(status), stream) == nullptr) {
        FARLINK_LOG("Failed to read relay status (%s)\n", status);
    }
    std::fclose(stream);
    // The terminator takes part: only the bare word counts, not "on\n".
    return std::memcmp(status, "on", 3) == 0;
}

int OrvorelaydServiceReload() {
    const bool reloaded = AS_ROOT(ORVOSystemdReload(std::string(kRelaydService)));
    return reloaded ? 0 : -1;
}

int NotifyOrvorelayd() {
    // A stopped daemon reads its files when it next starts.
    if (!OrvorelaydServiceIsEnabled()) return 0;
    if (OrvorelaydServiceReload() == 0) return 0;
    FARLINK_LOG("call OrvorelaydServiceReload() error");
    return -1;
}

bool GetDaemonStatus(std::string& serverId, std::string& status, std::string& error) {
    return AS_ROOT(ORVO::Relay::Daemon::GetStatus(serverId, status, error, nullptr));
}

int UpdateAlias() { return AS_ROOT(ORVO::Relay::Daemon::UpdateAlias()); }

void HandleApiKeyExpired() {
    FARLINK_LOG("api key expired");
    AS_ROOT(ORVOCloudServiceActionHandler(kApiKeyExpiredAction));
}

bool EnableFarlinkSNI(std::string& domain) {
    return AS_ROOT(ORVO::Relay::Utils::EnableRelaySNI(std::string(domain)));
}

bool DisableFarlinkSNI() { return AS_ROOT(ORVO::Relay::Utils::DisableRelaySNI()); }

bool IsFailoverEnable() {
    char value[64];
    std::memset(value, 0, sizeof(value));
    const int found = OLIBCFileGetKeyValue(kHostInfoFile, kFailoverKey, value, sizeof(value), 0);
    if (found < 0) {
        FARLINK_LOG("Fail to get failover enable setting");
        return false;
    }
    if (found > 0) return std::memcmp(value, "true", 5) == 0;
    // The daemon's check writes the key on first need; unlike start and
    // stop, any non-zero outcome of it is a failure.
    if (OLIBCExec(kRelaydProgram, "--check-failover", nullptr, nullptr, nullptr) != 0) {
        FARLINK_LOG("Fail to exec orvorelayd --check-failover");
        return false;
    }
    return OLIBCFileCheckKeyValue(kHostInfoFile, kFailoverKey, "true", 0) == 1;
}

int SwitchRelay(bool enabled) {
    return enabled ? OrvorelaydServiceStart() : OrvorelaydServiceStop();
}

bool ReadJsonFile(const std::string& path, Json::Value& value) {
    value = Json::Value();
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) return false;
    Json::Reader reader;
    bool parsed = false;
    try {
        parsed = reader.parse(in, value, false);
    } catch (const std::ios_base::failure&) {
        // A read error (a directory, a failing disk) escapes the stream as an
        // exception; such a file cannot be read, it is not a damaged one.
        value = Json::Value();
        return false;
    }
    if (!parsed) {
        // No half-parsed document reaches a caller that ignores the result.
        value = Json::Value();
        FARLINK_LOG("bad json format [%s]", path.c_str());
        RenameBadConfig(path);
        return false;
    }
    return true;
}

bool RenameBadConfig(const std::string& path) {
    const std::string badPath = path + ".bad";
    int renameError = 0;
    if (AS_ROOT(MoveFile(path, badPath, renameError))) return true;
    errno = renameError;
    FARLINK_LOG("rename %s to .bad failed. %m", path.c_str());
    // A damaged file must not stay where the next read would find it.
    AS_ROOT(unlink(path.c_str()));
    return false;
}

bool WriteJsonFile(const char* path, Json::Value value) {
    return AS_ROOT(ORVO::Relay::RelaydConf::WriteJsonFile(path, value));
}

bool WriteConfig(ORVO::Relay::Config* config) {
    if (config == nullptr) return false;
    return AS_ROOT(config->Save());
}

bool SetConfig(Json::Value document, const std::string& key, ORVO::Relay::Config& config) {
    if (!document.isObject() || !document.isMember(key)) return false;
    if (!config.LoadFromJson(document[key])) return false;
    return config.IsValid();
}

int WriteMiscConfigToFile(ORVO::Relay::MiscConf& config) {
    if (!WriteConfig(&config)) {
        FARLINK_LOG("Failed to write config");
        return kApiErrFailed;
    }
    if (NotifyOrvorelayd() == -1) {
        FARLINK_LOG("Fail to set notify orvorelayd");
        return kApiErrFailed;
    }
    return kApiSuccess;
}

void GenerateServiceConfig() {
    ORVO::Relay::ServicePermission permission(false);
    AS_ROOT(permission.GenPermissionConf());
}

void dnsEventCallBack(int result, evutil_addrinfo* list, void* context) {
    auto* dns = static_cast<DnsCallbackContext*>(context);
    {
        const std::unique_ptr<evutil_addrinfo, AddrinfoFree> owned(list);
        if (result != 0) {
            dns->succeeded = false;
            FARLINK_LOG("Fail to resolve, evdns error: %s", evutil_gai_strerror(result));
        } else {
            TakeAddresses(list, dns->ipv4, dns->ipv6);
            dns->succeeded = true;
        }
    }
    event_base_loopexit(dns->base, nullptr);
}

bool DNSResolveWithTimeout(std::string host, std::string& ipv4, std::string& ipv6, int timeout,
                           int attempts) {
    // Declared in this order so that the DNS base is freed before its loop.
    const std::unique_ptr<event_base, EventBaseFree> base(event_base_new());
    const std::unique_ptr<evdns_base, EvdnsBaseFree> dns(
        base ? evdns_base_new(base.get(), EVDNS_BASE_INITIALIZE_NAMESERVERS) : nullptr);
    if (!dns) {
        FARLINK_LOG("Fail to requset evdns resolve");
        return false;
    }
    char option[255];
    std::memset(option, 0, sizeof(option));
    std::snprintf(option, sizeof(option), "%d", timeout);
    evdns_base_set_option(dns.get(), "timeout", option);
    std::snprintf(option, sizeof(option), "%d", attempts);
    evdns_base_set_option(dns.get(), "attempts", option);
    // A name server counts as down after as many time-outs as there are tries.
    evdns_base_set_option(dns.get(), "max-timeouts", option);

    DnsCallbackContext context{base.get(), "", "", false};
    const evutil_addrinfo hints = StreamHints();
    if (evdns_getaddrinfo(dns.get(), host.c_str(), nullptr, &hints, dnsEventCallBack, &context) !=
        nullptr) {
        event_base_dispatch(base.get());
        ipv4 = context.ipv4;
        ipv6 = context.ipv6;
    } else {
        // Also the way of an answer the resolver had at once: the callback
        // has run already and its addresses are not handed on.
        FARLINK_LOG("Fail to requset evdns resolve");
    }
    return context.succeeded;
}

bool DNSResolve(const std::string& host, std::string& ipv4, std::string& ipv6) {
    const addrinfo hints = StreamHints();
    addrinfo* list = nullptr;
    const int result = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    const std::unique_ptr<addrinfo, SystemAddrinfoFree> owned(list);
    if (result != 0) {
        FARLINK_LOG("failed to resolve hostname \"%s\": %s", host.c_str(), gai_strerror(result));
        return false;
    }
    TakeAddresses(list, ipv4, ipv6);
    return true;
}

// ---- Control-server access: register site and server ID ----

namespace {

constexpr int kControlProtocolVersion = 1;
constexpr ORVO::Relay::RELAYD_RET kRelayOk = static_cast<ORVO::Relay::RELAYD_RET>(0);
constexpr ORVO::Relay::RELAYD_RET kRelayApiKeyExpired = static_cast<ORVO::Relay::RELAYD_RET>(15);
// A control server that cannot be reached within this time is given up, so
// that the fail-over server still gets its turn within the request.
constexpr long kRegisterSiteConnectTimeout = 5;
constexpr char kPrimaryRegisterSiteUrl[] = "https://" FARLINK_PRIMARY_CONTROL_HOST "/Serv.php";
constexpr char kSecondaryRegisterSiteUrl[] = "https://" FARLINK_SECONDARY_CONTROL_HOST "/Serv.php";
constexpr int kMd5TextSize = 64;

}  // namespace

bool GetRegisterSiteAPI(const std::string& url, Json::Value& response,
                        ORVO::Relay::RELAYD_RET& ret) {
    Json::Value body;
    ORVO::Relay::Request request(url, body, true);
    body["version"] = kControlProtocolVersion;
    body["command"] = "get_register_site";
    if (!request.Set(url, body, true)) {
        FARLINK_LOG("set register command failed");
        return false;
    }
    if (!request.SetConnectionTimeout(kRegisterSiteConnectTimeout)) {
        FARLINK_LOG("Set register connection timeout failed");
        return false;
    }
    if (!request.Send()) {
        ret = request.GetError();
        FARLINK_LOG("request send failed: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(ret));
        return false;
    }
    if (!request.GetResponse(response)) {
        ret = request.GetError();
        FARLINK_LOG("can not get response: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(ret));
        return false;
    }
    const ORVO::Relay::RELAYSERVER_ERR serverError = ORVO::Relay::ParseServerError(response);
    ret = ORVO::Relay::RespErrMap(serverError);
    if (ret != kRelayOk) {
        FARLINK_LOG("reponse failed: %d, %s", static_cast<int>(serverError),
                    ORVO::Relay::GetErrorStr(ret));
        return false;
    }
    return true;
}

bool HasRegisterSiteHost(const Json::Value& answer) {
    return answer.isObject() && answer.isMember("host") && answer["host"].isString();
}

int GetRegisterSiteWithCn(Json::Value& response) {
    ORVO::Relay::RELAYD_RET ret = kRelayRetUnset;
    if (!GetRegisterSiteAPI(kPrimaryRegisterSiteUrl, response, ret)) {
        if (!IsFailoverEnable()) {
            FARLINK_LOG("get register site fail");
            return MapRelayErrorCode(ret);
        }
        FARLINK_LOG("get register site fail, try %s", FARLINK_SECONDARY_CONTROL_HOST);
        if (!GetRegisterSiteAPI(kSecondaryRegisterSiteUrl, response, ret)) {
            FARLINK_LOG("get register site fail");
            return MapRelayErrorCode(ret);
        }
    }
    if (!HasRegisterSiteHost(response)) {
        FARLINK_LOG("cannot parse a register site host");
        return kApiErrFailed;
    }
    return kApiSuccess;
}

bool GetRegisterSite(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret) {
    Json::Value response;
    if (!GetRegisterSiteAPI(conf.serverGlobal.GetUrl(nullptr), response, ret)) return false;
    // A successful exchange has left `ret` at 0: callers stop on the result.
    if (!HasRegisterSiteHost(response)) {
        FARLINK_LOG("cannot get a register site host");
        return false;
    }
    conf.serverControl.Overwrite(response);
    const std::string host = conf.serverControl.GetHost();
    {
        CriticalSection section(kLogSource, __LINE__);
        conf.WriteControlServerHost("", host);
        conf.WriteServerId("");
    }
    return true;
}

ORVO::Relay::RELAYD_RET SendRegisterServerId(ORVO::Relay::RelaydConf& conf, Json::Value& response) {
    Json::Value body;
    ORVO::Relay::Request request(conf.serverGlobal.GetUrl(nullptr), body, true);
    conf.auth.ReadConf();
    body["version"] = kControlProtocolVersion;
    body["command"] = "register";
    // The credentials go into the body only: they are never logged or kept.
    if (!conf.auth.Write(body["auth"], true)) {
        FARLINK_LOG("get auth token failed");
        return kRelayRetUnset;
    }
    if (!request.Set(conf.serverGlobal.GetUrl(nullptr), body, true)) {
        FARLINK_LOG("set register command failed");
        return kRelayRetUnset;
    }
    // No connection time-out of its own: the library's limits apply.
    if (!request.Send()) {
        const ORVO::Relay::RELAYD_RET result = request.GetError();
        FARLINK_LOG("request send failed: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(result));
        return result;
    }
    if (!request.GetResponse(response)) {
        const ORVO::Relay::RELAYD_RET result = request.GetError();
        FARLINK_LOG("can not get response: %d, %s", request.GetCurlResult(),
                    ORVO::Relay::GetErrorStr(result));
        return result;
    }
    return ORVO::Relay::RespErrMap(ORVO::Relay::ParseServerError(response));
}

bool RegisterServerId(ORVO::Relay::RelaydConf& conf, ORVO::Relay::RELAYD_RET& ret) {
    Json::Value response;
    ret = SendRegisterServerId(conf, response);
    if (ret == kRelayOk) {
        if (!response.isObject() || !response.isMember("serverID") ||
            !response["serverID"].isString()) {
            FARLINK_LOG("cannot get a serverid");
            return false;
        }
        conf.serverId = response["serverID"].asString();
        AS_ROOT(conf.WriteServerId(""));
        return true;
    }
    if (ret == kRelayApiKeyExpired) {
        // The cloud service learns of it; the caller answers the error.
        HandleApiKeyExpired();
        return false;
    }
    FARLINK_LOG("reponse failed: %d, %s", static_cast<int>(ORVO::Relay::ParseServerError(response)),
                ORVO::Relay::GetErrorStr(ret));
    return false;
}

// The MD5 calls are deprecated in OpenSSL 3 but are the interface this
// digest has always been made with.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int GetMd5String(const char* text, char* out, int outSize) {
    if (text == nullptr || out == nullptr) {
        FARLINK_LOG("Invalid input.");
        return -1;
    }
    if (outSize < kMd5TextSize) {
        FARLINK_LOG("Invalid output size");
        return -1;
    }
    std::memset(out, 0, static_cast<size_t>(outSize));
    unsigned char digest[64];
    std::memset(digest, 0, sizeof(digest));
    MD5_CTX context;
    if (MD5_Init(&context) < 1) {
        FARLINK_LOG("MD5_Init failed");
        return -1;
    }
    if (MD5_Update(&context, text, std::strlen(text)) < 1) {
        FARLINK_LOG("MD5_Update failed");
        return -1;
    }
    if (MD5_Final(digest, &context) < 1) {
        FARLINK_LOG("MD5_Final failed");
        return -1;
    }
    for (int i = 0; i < MD5_DIGEST_LENGTH; ++i) {
        std::snprintf(out + 2 * i, 3, "%02x", digest[i]);
    }
    // Callers hand in 65 bytes; the terminator goes after the checked size.
    out[kMd5TextSize] = '\0';
    return 0;
}
#pragma GCC diagnostic pop

// --- Account lookup -----------------------------------------------------------

namespace {

constexpr char kKivoProgram[] = "/usr/orvo/bin/orvokivo";
// The core library's "start it and do not wait, in a session of its own":
// the refresh outlives the request and must not hold the host's terminal or
// descriptors.
constexpr int kExecInBackground = 0x41;

}  // namespace

int OrvoAccountGet(_tag_kivo_INFO_* info) { return AS_ROOT(ORVOKIVOAccountGet(info)); }

int OrvoAccountQueryInfo(Json::Value& info) {
    return AS_ROOT(ORVOKIVOAccountQueryInfo(info, true, true));
}

int OrvoAccountQueryInfoBackground(bool useCache) {
    const int result =
        AS_ROOT(useCache ? OLIBCExecl(kKivoProgram, kExecInBackground, "--query_account", "--cache",
                                      nullptr)
                         : OLIBCExecl(kKivoProgram, kExecInBackground, "--query_account", nullptr));
    if (result < 0) FARLINK_LOG("Failed to execute orvokivo, ret: %d", result);
    return result;
}
