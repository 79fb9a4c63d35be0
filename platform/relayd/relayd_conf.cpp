// The relay daemon's main configuration, orvorelayd.conf.
#include <orvo/paths.h>
#include <orvo/relayd.h>

#include "json_file.h"
#include "relayd_conf_internal.h"

namespace ORVO {
namespace Relay {
namespace {

constexpr int kAliasCommandVersion = 1;

// The one place that knows how the sections make up the document.
bool ComposeDocument(const ServerConf& global, const ServerConf& control, const AliasConf& alias,
                     const KivoConf& kivo, const std::string& serverId, bool full,
                     Json::Value& out) {
    if (!internal::PrepareObject(out)) return false;
    Json::Value globalValue, controlValue, aliasValue, kivoValue;
    if (!global.Write(globalValue, full) || !control.Write(controlValue, full) ||
        !alias.Write(aliasValue, full) || !kivo.Write(kivoValue, full)) {
        return false;
    }
    out[internal::kServerGlobalSection] = globalValue;
    out[internal::kServerControlSection] = controlValue;
    out[internal::kServerAliasSection] = aliasValue;
    out[internal::kKivoSection] = kivoValue;
    if (full || !serverId.empty()) out[internal::kServerIdKey] = serverId;
    return true;
}

// Loads `section` from `document[key]` when present; an absent section keeps
// what `section` holds.
bool LoadSection(const Json::Value& document, const char* key, Config& section) {
    return !document.isMember(key) || section.LoadFromJson(document[key]);
}

}  // namespace

namespace internal {

Json::Value DefaultRelaydDocument() {
    Json::Value document(Json::objectValue);
    ComposeDocument(ServerConf(nullptr, kServerGlobalSection),
                    ServerConf(nullptr, kServerControlSection), AliasConf(), KivoConf(),
                    std::string(), true, document);
    return document;
}

bool SaveRelaydMember(const std::string& path, const std::string& key, const Json::Value& value) {
    return UpdateJsonObjectFile(path, DefaultRelaydDocument(),
                                [&](Json::Value& document) { document[key] = value; });
}

}  // namespace internal

RelaydConf::RelaydConf(const char* path)
    : serverGlobal(internal::RelaydConfPath(path).c_str(), internal::kServerGlobalSection),
      serverControl(internal::RelaydConfPath(path).c_str(), internal::kServerControlSection),
      serverAlias(internal::RelaydConfPath(path).c_str()),
      kivo(internal::RelaydConfPath(path).c_str()),
      path_(internal::RelaydConfPath(path)) {
    Json::Value document;
    if (internal::ReadJsonFile(path_, document)) LoadFromJson(document);
}

bool RelaydConf::LoadFromJson(const Json::Value& value) {
    if (!value.isObject()) return false;
    // Start from the defaults so that an absent section is a default one, and
    // commit only when the whole document was taken.
    ServerConf global(path_.c_str(), internal::kServerGlobalSection);
    ServerConf control(path_.c_str(), internal::kServerControlSection);
    AliasConf alias(path_.c_str());
    KivoConf account(path_.c_str());
    std::string id;
    if (!LoadSection(value, internal::kServerGlobalSection, global) ||
        !LoadSection(value, internal::kServerControlSection, control) ||
        !LoadSection(value, internal::kServerAliasSection, alias) ||
        !LoadSection(value, internal::kKivoSection, account) ||
        !internal::TakeOptional(value, internal::kServerIdKey, id)) {
        return false;
    }
    serverGlobal = global;
    serverControl = control;
    serverAlias = alias;
    kivo = account;
    serverId = id;
    return true;
}

bool RelaydConf::IsValid() const {
    return serverGlobal.IsValid() && serverControl.IsValid() && serverAlias.IsValid() &&
           kivo.IsValid();
}

bool RelaydConf::Write(Json::Value& out, bool full) const {
    return ComposeDocument(serverGlobal, serverControl, serverAlias, kivo, serverId, full, out);
}

bool RelaydConf::Save() {
    if (!IsValid()) return false;
    Json::Value document(Json::objectValue);
    if (!Write(document, true)) return false;
    // Members of other writers (unknown to this version) survive the save.
    return internal::UpdateJsonObjectFile(path_, Json::Value(Json::objectValue),
                                          [&](Json::Value& current) {
                                              for (const auto& key : document.getMemberNames())
                                                  current[key] = document[key];
                                          });
}

bool RelaydConf::WriteControlServerHost(const std::string& path, const std::string& host) {
    if (host.empty()) return false;
    serverControl.SetHost(host);
    return internal::SaveRelaydSection(path.empty() ? path_ : path, internal::kServerControlSection,
                                       serverControl);
}

bool RelaydConf::WriteServerId(const std::string& path) {
    return internal::SaveRelaydMember(path.empty() ? path_ : path, internal::kServerIdKey,
                                      Json::Value(serverId));
}

bool RelaydConf::DumpDataForAliasReq(Json::Value& out) const {
    if (!internal::PrepareObject(out)) return false;
    out["serverID"] = serverId;
    out["alias"] = serverAlias.GetAliasName();
    out["command_version"] = kAliasCommandVersion;
    return true;
}

bool RelaydConf::WriteJsonFile(const char* path, const Json::Value& value) {
    if (path == nullptr || *path == '\0') return false;
    return internal::WriteJsonFile(path, value);
}

}  // namespace Relay
}  // namespace ORVO
