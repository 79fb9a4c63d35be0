// Relay client library (liborvorelayd): the relay daemon's configuration
// objects, requests to the control server, and access to the running daemon.
//
// File layouts and defaults are described in docs/relay-library.md; the control
// server protocol in docs/control-protocol.md.
#pragma once

#include <json/value.h>

#include <string>

namespace ORVO {
namespace Relay {

// Result of relay operations. 0 is success.
enum RELAYD_RET : int {
    RELAYD_OK = 0,
    RELAYD_ERR_UNKNOWN = 1,
    RELAYD_ERR_INVALID_ARG = 2,
    RELAYD_ERR_CONFIG = 3,
    RELAYD_ERR_DAEMON = 4,
    RELAYD_ERR_AUTH = 5,             // the control server refused the box's credentials
    RELAYD_ERR_RESOLVE = 6,          // a host name did not resolve
    RELAYD_ERR_NETWORK = 7,          // no connection could be made
    RELAYD_ERR_SERVER_BUSY = 8,      // the control server asked to come back later
    RELAYD_ERR_BAD_RESPONSE = 9,     // the answer was not a JSON object
    RELAYD_ERR_NOT_REGISTERED = 10,  // the control server does not know this server ID
    RELAYD_ERR_TIMEOUT = 11,         // the exchange took longer than allowed
    RELAYD_ERR_TLS = 12,             // certificate or handshake failure
    RELAYD_ERR_SERVER_INTERNAL = 13,
    RELAYD_ERR_UNSUPPORTED = 14,  // command or version unknown to the server
    RELAYD_ERR_APIKEY_EXPIRED = 15,
    RELAYD_ERR_VIOLATION = 30,  // the account or box violated the service policy
    RELAYD_RET_UNSET = 255,
};

// Result of an alias request. 1 is success.
enum ALIAS_RET : int {
    ALIAS_OK = 1,
    ALIAS_ERR_UNKNOWN = 2,
    ALIAS_ERR_TAKEN = 3,     // another box holds the alias
    ALIAS_ERR_RESERVED = 4,  // the alias is reserved by the service
    ALIAS_ERR_PARAM = 5,
    ALIAS_ERR_RESOLVE = 6,
    ALIAS_ERR_NETWORK = 7,
    ALIAS_ERR_AUTH = 8,           // account or password refused
    ALIAS_ERR_ACCOUNT_LIMIT = 9,  // the account holds too many aliases
    ALIAS_ERR_NOT_REGISTERED = 10,
    ALIAS_ERR_INTERNAL = 11,
    ALIAS_ERR_ACCOUNT_UNVERIFIED = 12,
    ALIAS_ERR_APIKEY_EXPIRED = 14,
    ALIAS_ERR_VIOLATION = 30,
    ALIAS_RET_UNSET = 255,
};

// Error numbers that the control server puts in its answers ("errno").
enum RELAYSERVER_ERR : int {
    RELAYSERVER_OK = 0,
    RELAYSERVER_ERR_UNKNOWN_COMMAND = 1,
    RELAYSERVER_ERR_BAD_REQUEST = 2,
    RELAYSERVER_ERR_AUTH = 3,
    RELAYSERVER_ERR_BUSY = 4,
    RELAYSERVER_ERR_APIKEY_EXPIRED = 5,
    RELAYSERVER_ERR_ALIAS_TAKEN = 6,
    RELAYSERVER_ERR_ALIAS_RESERVED = 7,
    RELAYSERVER_ERR_ACCOUNT_AUTH = 8,
    RELAYSERVER_ERR_ACCOUNT_LIMIT = 9,
    RELAYSERVER_ERR_NOT_REGISTERED = 10,
    RELAYSERVER_ERR_INTERNAL = 11,
    RELAYSERVER_ERR_ACCOUNT_UNVERIFIED = 12,
    RELAYSERVER_ERR_UNSUPPORTED_VERSION = 13,
    RELAYSERVER_ERR_VIOLATION = 30,
    RELAYSERVER_ERR_MALFORMED = -1,  // the answer carried an error member that is not a number
};

enum ALIAS_REQUEST_CMD : int {
    ALIAS_REQUEST_SET = 1,
    ALIAS_REQUEST_QUERY = 2,
};

// Common base of the configuration objects. The order of the virtual
// operations is part of the library's binary interface.
class Config {
public:
    // Takes the object's values from a JSON value.
    virtual bool LoadFromJson(const Json::Value& value) = 0;
    // Checks the values last taken.
    virtual bool IsValid() const = 0;
    // Puts the object's values into `out` (an object; members are replaced).
    virtual bool Write(Json::Value& out, bool full) const = 0;
    // Writes the object's values to its file, atomically.
    virtual bool Save() = 0;
    virtual ~Config() = default;
};

// A control-server record: the global control server or the current one
// (the register site). Kept as a section of orvorelayd.conf.
class ServerConf : public Config {
public:
    // `path` is the file the record is saved to (the relay configuration
    // when null) and `section` its member there ("server_control" when null).
    ServerConf(const char* path = nullptr, const char* section = nullptr);

    bool LoadFromJson(const Json::Value& value) override;
    bool IsValid() const override;
    bool Write(Json::Value& out, bool full) const override;
    bool Save() override;

    // "<scheme>://<host>[:<port>]<path>", the record's own path when `path`
    // is null.
    std::string GetUrl(const char* path) const;
    const std::string& GetHost() const { return host_; }
    void SetHost(const std::string& host) { host_ = host; }
    const std::string& GetRegion() const { return region_; }
    const std::string& GetDDNSDomain() const { return ddnsDomain_; }
    const std::string& GetPortalDomain() const { return portalDomain_; }
    // Takes over the members of a register-site answer that it knows
    // ("host", "region", "ddns_domain", "portal_domain", "scheme", "port").
    bool Overwrite(const Json::Value& answer);

private:
    std::string path_;
    std::string section_;
    std::string scheme_;
    std::string host_;
    int port_;
    std::string urlPath_;
    std::string region_;
    std::string ddnsDomain_;
    std::string portalDomain_;
};

// The server alias ("server_alias" section).
class AliasConf : public Config {
public:
    explicit AliasConf(const char* path = nullptr);

    bool LoadFromJson(const Json::Value& value) override;
    bool IsValid() const override;
    bool Write(Json::Value& out, bool full) const override;
    bool Save() override;

    const std::string& GetAliasName() const { return alias_; }
    // False (and nothing changed) for an empty name or one longer than 63 bytes.
    bool SetAliasName(const std::string& alias);

private:
    std::string path_;
    std::string alias_;
};

// The kivo account bound to the relay ("kivo" section).
class KivoConf : public Config {
public:
    explicit KivoConf(const char* path = nullptr);

    bool LoadFromJson(const Json::Value& value) override;
    bool IsValid() const override;
    bool Write(Json::Value& out, bool full) const override;
    bool Save() override;

    const std::string& GetKivoAccount() const { return account_; }
    // False (and nothing changed) for an empty account.
    bool SetKivoAccount(const std::string& account);

private:
    std::string path_;
    std::string account_;
};

// The box's credentials at the control server (auth.conf, root-only).
class AuthConf {
public:
    AuthConf();
    // Reads the credentials file; false when it is missing or incomplete.
    // Works without raised ids when the real ids are root's.
    bool ReadConf();
    // Puts the credentials into `out`; false when none were read.
    bool Write(Json::Value& out, bool full) const;

private:
    bool loaded_ = false;
    Json::Value credentials_;
};

// The relay daemon's main configuration.
class RelaydConf : public Config {
public:
    // Loads `path`; a missing or unusable file leaves the defaults.
    explicit RelaydConf(const char* path);

    bool LoadFromJson(const Json::Value& value) override;
    bool IsValid() const override;
    bool Write(Json::Value& out, bool full) const override;
    bool Save() override;

    // Persist single items into `path`, the object's own file when empty.
    bool WriteControlServerHost(const std::string& path, const std::string& host);
    bool WriteServerId(const std::string& path);
    // Base body of an alias request ("serverID", "alias", "command_version").
    bool DumpDataForAliasReq(Json::Value& out) const;

    // Writes `value` to `path` as JSON, atomically.
    static bool WriteJsonFile(const char* path, const Json::Value& value);

    const std::string& GetPath() const { return path_; }

    ServerConf serverGlobal;   // "server_global": where to register and ask for the register site
    ServerConf serverControl;  // "server_control": the register site
    AliasConf serverAlias;     // "server_alias"
    KivoConf kivo;             // "kivo"
    AuthConf auth;             // auth.conf
    std::string serverId;      // "server_id"

private:
    std::string path_;
};

// Miscellaneous relay settings (misc.conf): "relay_tunnel", "upnp", "smartdns".
class MiscConf : public Config {
public:
    // With `load` true the file's settings are taken over the defaults; with
    // false the object holds the defaults only.
    MiscConf(const char* path, bool load);

    bool LoadFromJson(const Json::Value& value) override;
    bool IsValid() const override;
    bool Write(Json::Value& out, bool full) const override;
    bool Save() override;

    // Replaces one top-level member.
    bool OverwriteItem(std::string key, const Json::Value& value);

private:
    std::string path_;
    Json::Value settings_;
};

// Services reachable through the relay (services.conf).
class ServicePermission {
public:
    // With `load` true the current file is read.
    explicit ServicePermission(bool load);
    // Writes the default services list.
    bool GenPermissionConf();
    const Json::Value& GetServices() const { return services_; }

private:
    Json::Value services_;
};

// Status records of server aliases (alias_status.conf).
class AliasStatus {
public:
    AliasStatus();
    bool GetStatus(const std::string& alias, std::string& status, std::string& error) const;
    // With `save` the record is written; without raised ids too when the real
    // ids are root's.
    bool SetStatus(const std::string& alias, const std::string& status, const std::string& error,
                   bool save);
};

// One JSON exchange with a control server over HTTP(S).
class Request {
public:
    // `post`: send the body as a JSON POST (the only form the servers take).
    Request(const std::string& url, const Json::Value& body, bool post);
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // False when the URL is empty or the body is not an object.
    bool Set(const std::string& url, const Json::Value& body, bool post);
    // Connection (and TLS handshake) time-out in seconds; false when not positive.
    bool SetConnectionTimeout(long seconds);
    // Whole-exchange time-out in seconds (a default applies otherwise).
    bool SetTimeout(long seconds);
    bool Send();
    // False when nothing was received or the answer is not a JSON object.
    bool GetResponse(Json::Value& response) const;
    RELAYD_RET GetError() const { return error_; }
    int GetCurlResult() const { return curlResult_; }

private:
    std::string url_;
    std::string body_;
    bool post_ = true;
    long connectTimeout_ = 0;
    long timeout_ = 0;
    std::string received_;
    long httpStatus_ = 0;
    RELAYD_RET error_ = RELAYD_OK;
    int curlResult_ = 0;
};

// An alias request to the register site named by the relay configuration
// file at the time it is sent.
class AliasRequest {
public:
    AliasRequest();
    bool SetRequest(ALIAS_REQUEST_CMD command, const Json::Value& body);
    // Performs the request; `ret` receives the outcome. True only for ALIAS_OK.
    bool Send(ALIAS_RET& ret);
    bool ResponseToString(ALIAS_RET ret, std::string& text) const;

private:
    ALIAS_REQUEST_CMD command_ = ALIAS_REQUEST_SET;
    Json::Value body_;
    bool ready_ = false;
};

RELAYSERVER_ERR ParseServerError(const Json::Value& response);
RELAYD_RET RespErrMap(RELAYSERVER_ERR error);
const char* GetErrorStr(RELAYD_RET ret);

// The running relay daemon.
class Daemon {
public:
    // The daemon's server ID, state word ("not_running", "connecting",
    // "connected", ...) and last error word ("", "err_resolv", "err_network",
    // "err_violation", ...). False when the state cannot be read.
    static bool GetStatus(std::string& serverId, std::string& status, std::string& error,
                          const char* confPath = nullptr);
    // Asks the daemon to refresh the alias from the control server; 0 when
    // the request was delivered, -1 otherwise.
    static int UpdateAlias();
};

class Utils {
public:
    static bool EnableRelaySNI(std::string domain);
    static bool DisableRelaySNI();
};

}  // namespace Relay
}  // namespace ORVO
