// A record of who changed what: one JSON line per state-changing call and
// per login attempt. It must never hold a secret: passwords and tokens in
// parameters are replaced by a marker and sessions appear only as a hash.
//
//   {"time":"2026-01-05T10:00:00.123456Z","event":"call","client":"127.0.0.1",
//    "session":"3f9c2a...","api":"ORVO.Core.Farlink","version":1,
//    "method":"set_server_alias","params":{"kivo_password":"[redacted]",...},
//    "result":"ok"}
//   {"time":"...","event":"login","client":"127.0.0.1","result":"failure"}
#pragma once

#include <farlink/unique_fd.h>
#include <json/value.h>

#include <cstddef>
#include <deque>
#include <string>

namespace farlink::host {

constexpr char kRedacted[] = "[redacted]";

// `params` with the value of every member whose name marks a secret
// (password, passwd, secret, token, at any depth) replaced by kRedacted.
Json::Value RedactSecrets(const Json::Value& params);

// 16 hex digits of the SHA-256 of a session id: the same session's lines can
// be told apart from another's, and the id cannot be recovered.
std::string SessionDigest(const std::string& session);

struct AuditedCall {
    std::string client;   // address, without the port
    std::string session;  // the raw id; only its digest is written
    std::string api;
    std::uint32_t version = 0;
    std::string method;
    Json::Value params;
    std::string result;  // "ok" or "error=<code>[,detail]"
};

class AuditLog {
public:
    // An empty fd keeps the recent lines in memory only.
    explicit AuditLog(UniqueFd file, std::size_t recentLimit = 50)
        : file_(std::move(file)), recentLimit_(recentLimit) {}

    void RecordCall(const AuditedCall& call);
    // `outcome`: "success", "failure", or "throttled" when it was not tried.
    void RecordLogin(const std::string& client, const std::string& outcome);
    // From the next record on, write to `file` (the log reopened by its name).
    void Replace(UniqueFd file) { file_ = std::move(file); }

    // The latest records, oldest first, as written.
    Json::Value Recent() const;

private:
    void Append(Json::Value record);

    UniqueFd file_;
    std::size_t recentLimit_;
    std::deque<Json::Value> recent_;
};

// "ADDR:PORT" or "[ADDR]:PORT" -> "ADDR".
std::string AddressOf(const std::string& client);

}  // namespace farlink::host
