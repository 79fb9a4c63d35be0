#include "audit_log.h"

#include <json/writer.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <memory>
#include <sstream>

#include "access_log.h"
#include "secrets.h"

namespace farlink::host {

namespace {

// A parameter this large says nothing more useful in an audit line than its size.
constexpr std::size_t kMaxParamsText = 4096;
constexpr std::size_t kDigestHexDigits = 16;

std::string CompactText(const Json::Value& value) {
    static const std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }();
    std::ostringstream text;
    writer->write(value, &text);
    return text.str();
}

Json::Value BoundedParams(const Json::Value& params) {
    Json::Value redacted = RedactSecrets(params);
    const std::size_t size = CompactText(redacted).size();
    if (size <= kMaxParamsText) return redacted;
    Json::Value summary(Json::objectValue);
    summary["truncated"] = true;
    summary["bytes"] = static_cast<Json::UInt64>(size);
    return summary;
}

}  // namespace

Json::Value RedactSecrets(const Json::Value& params) {
    if (params.isArray()) {
        Json::Value copy(Json::arrayValue);
        for (const Json::Value& item : params) copy.append(RedactSecrets(item));
        return copy;
    }
    if (!params.isObject()) return params;
    Json::Value copy(Json::objectValue);
    for (const std::string& name : params.getMemberNames()) {
        copy[name] = NamesSecret(name) ? Json::Value(kRedacted) : RedactSecrets(params[name]);
    }
    return copy;
}

std::string SessionDigest(const std::string& session) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_Digest(session.data(), session.size(), digest.data(), &length, EVP_sha256(), nullptr) !=
        1) {
        return "-";
    }
    std::string hex;
    for (unsigned int i = 0; i < length && hex.size() < kDigestHexDigits; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

std::string AddressOf(const std::string& client) {
    if (!client.empty() && client.front() == '[') {
        const std::size_t close = client.find(']');
        return close == std::string::npos ? client : client.substr(1, close - 1);
    }
    return client.substr(0, client.rfind(':'));
}

void AuditLog::RecordCall(const AuditedCall& call) {
    Json::Value record(Json::objectValue);
    record["event"] = "call";
    record["client"] = call.client;
    record["session"] = call.session.empty() ? std::string("-") : SessionDigest(call.session);
    record["api"] = call.api;
    record["version"] = call.version;
    record["method"] = call.method;
    record["params"] = BoundedParams(call.params);
    record["result"] = call.result;
    Append(std::move(record));
}

void AuditLog::RecordLogin(const std::string& client, const std::string& outcome) {
    Json::Value record(Json::objectValue);
    record["event"] = "login";
    record["client"] = client;
    record["result"] = outcome;
    Append(std::move(record));
}

void AuditLog::Append(Json::Value record) {
    record["time"] = UtcTimestamp();
    if (file_) {
        // One write on an append-only descriptor: lines never interleave.
        const std::string line = CompactText(record) + "\n";
        const ssize_t written = ::write(file_.Get(), line.data(), line.size());
        (void)written;  // a full disk must not fail the request it records
    }
    recent_.push_back(std::move(record));
    if (recent_.size() > recentLimit_) recent_.pop_front();
}

Json::Value AuditLog::Recent() const {
    Json::Value list(Json::arrayValue);
    for (const Json::Value& record : recent_) list.append(record);
    return list;
}

}  // namespace farlink::host
