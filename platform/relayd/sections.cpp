// The sections of orvorelayd.conf: control-server records, alias, account.
#include <orvo/paths.h>
#include <orvo/relayd.h>

#include "json_file.h"
#include "relayd_conf_internal.h"

namespace ORVO {
namespace Relay {
namespace {

constexpr const char kDefaultScheme[] = "https";
constexpr int kDefaultPort = 443;
constexpr const char kDefaultUrlPath[] = "/Serv.php";
constexpr size_t kMaxAliasLength = 63;

int StandardPort(const std::string& scheme) { return scheme == "http" ? 80 : 443; }

// Puts `value` into `out[key]` unless only changed members are wanted and it
// still has its default.
template <typename T>
void PutMember(Json::Value& out, const char* key, const T& value, const T& defaultValue,
               bool full) {
    if (full || value != defaultValue) out[key] = value;
}

}  // namespace

namespace internal {

std::string RelaydConfPath(const char* path) {
    return (path != nullptr && *path != '\0') ? path : Paths::kRelaydConf;
}

bool SaveRelaydSection(const std::string& path, const std::string& key, const Config& section) {
    Json::Value value(Json::objectValue);
    if (!section.IsValid() || !section.Write(value, true)) return false;
    return SaveRelaydMember(path, key, value);
}

}  // namespace internal

// ---- ServerConf

ServerConf::ServerConf(const char* path, const char* section)
    : path_(internal::RelaydConfPath(path)),
      section_((section != nullptr && *section != '\0') ? section
                                                        : internal::kServerControlSection),
      scheme_(kDefaultScheme),
      host_(FARLINK_PRIMARY_CONTROL_HOST),
      port_(kDefaultPort),
      urlPath_(kDefaultUrlPath),
      ddnsDomain_(FARLINK_DEFAULT_DIRECT_DOMAIN),
      portalDomain_(FARLINK_DEFAULT_PORTAL_DOMAIN) {}

bool ServerConf::LoadFromJson(const Json::Value& value) {
    if (!value.isObject() || !value["host"].isString()) return false;
    ServerConf parsed(path_.c_str(), section_.c_str());
    if (!parsed.Overwrite(value)) return false;
    *this = parsed;
    return true;
}

bool ServerConf::IsValid() const {
    return !host_.empty() && (scheme_ == "http" || scheme_ == "https") && port_ > 0 &&
           port_ <= 65535 && !urlPath_.empty() && urlPath_.front() == '/';
}

bool ServerConf::Write(Json::Value& out, bool full) const {
    if (!internal::PrepareObject(out)) return false;
    const ServerConf defaults(path_.c_str(), section_.c_str());
    PutMember(out, "scheme", scheme_, defaults.scheme_, full);
    PutMember(out, "host", host_, defaults.host_, full);
    PutMember(out, "port", port_, defaults.port_, full);
    PutMember(out, "path", urlPath_, defaults.urlPath_, full);
    PutMember(out, "region", region_, defaults.region_, full);
    PutMember(out, "ddns_domain", ddnsDomain_, defaults.ddnsDomain_, full);
    PutMember(out, "portal_domain", portalDomain_, defaults.portalDomain_, full);
    return true;
}

bool ServerConf::Save() { return internal::SaveRelaydSection(path_, section_, *this); }

std::string ServerConf::GetUrl(const char* path) const {
    std::string url = scheme_ + "://";
    const bool ipv6Literal = host_.find(':') != std::string::npos && host_.front() != '[';
    url += ipv6Literal ? "[" + host_ + "]" : host_;
    if (port_ != StandardPort(scheme_)) url += ":" + std::to_string(port_);
    const std::string tail = path != nullptr ? path : urlPath_;
    if (!tail.empty() && tail.front() != '/') url += '/';
    return url + tail;
}

bool ServerConf::Overwrite(const Json::Value& answer) {
    if (!answer.isObject()) return false;
    ServerConf merged(*this);
    using internal::TakeOptional;
    const bool typesRight = TakeOptional(answer, "host", merged.host_) &&
                            TakeOptional(answer, "scheme", merged.scheme_) &&
                            TakeOptional(answer, "port", merged.port_) &&
                            TakeOptional(answer, "path", merged.urlPath_) &&
                            TakeOptional(answer, "region", merged.region_) &&
                            TakeOptional(answer, "ddns_domain", merged.ddnsDomain_) &&
                            TakeOptional(answer, "portal_domain", merged.portalDomain_);
    if (!typesRight || merged.host_.empty()) return false;
    *this = merged;
    return true;
}

// ---- AliasConf

AliasConf::AliasConf(const char* path) : path_(internal::RelaydConfPath(path)) {}

bool AliasConf::LoadFromJson(const Json::Value& value) {
    std::string alias;
    if (!internal::TakeString(value, "alias", alias)) return false;
    alias_ = alias;
    return true;
}

bool AliasConf::IsValid() const { return alias_.size() <= kMaxAliasLength; }

bool AliasConf::Write(Json::Value& out, bool full) const {
    if (!internal::PrepareObject(out)) return false;
    PutMember(out, "alias", alias_, std::string(), full);
    return true;
}

bool AliasConf::Save() {
    return internal::SaveRelaydSection(path_, internal::kServerAliasSection, *this);
}

bool AliasConf::SetAliasName(const std::string& alias) {
    if (alias.empty() || alias.size() > kMaxAliasLength) return false;
    alias_ = alias;
    return true;
}

// ---- KivoConf

KivoConf::KivoConf(const char* path) : path_(internal::RelaydConfPath(path)) {}

bool KivoConf::LoadFromJson(const Json::Value& value) {
    std::string account;
    if (!internal::TakeString(value, "account", account)) return false;
    account_ = account;
    return true;
}

bool KivoConf::IsValid() const { return true; }

bool KivoConf::Write(Json::Value& out, bool full) const {
    if (!internal::PrepareObject(out)) return false;
    PutMember(out, "account", account_, std::string(), full);
    return true;
}

bool KivoConf::Save() { return internal::SaveRelaydSection(path_, internal::kKivoSection, *this); }

bool KivoConf::SetKivoAccount(const std::string& account) {
    if (account.empty()) return false;
    account_ = account;
    return true;
}

}  // namespace Relay
}  // namespace ORVO
