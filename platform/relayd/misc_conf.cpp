// Miscellaneous relay settings (misc.conf) and the services reachable through
// the relay (services.conf).
#include <orvo/paths.h>
#include <orvo/relayd.h>

#include "json_file.h"

namespace ORVO {
namespace Relay {
namespace {

Json::Value DefaultMiscSettings() {
    Json::Value settings(Json::objectValue);
    settings["relay_tunnel"]["relay_enabled"] = true;
    settings["upnp"]["enabled"] = false;
    settings["smartdns"]["smartdns_support_type"] = 1;
    return settings;
}

// Later members win: the settings of `overlay` replace those of `base`.
Json::Value Overlay(Json::Value base, const Json::Value& overlay) {
    for (const auto& key : overlay.getMemberNames()) base[key] = overlay[key];
    return base;
}

constexpr const char* kDefaultServices[] = {"web", "file", "photo", "media", "backup", "drive"};

Json::Value DefaultServices() {
    Json::Value services(Json::arrayValue);
    for (const char* id : kDefaultServices) {
        Json::Value entry(Json::objectValue);
        entry["id"] = id;
        entry["enabled"] = true;
        services.append(entry);
    }
    return services;
}

}  // namespace

// ---- MiscConf

MiscConf::MiscConf(const char* path, bool load)
    : path_(path != nullptr ? path : Paths::kMiscConf), settings_(DefaultMiscSettings()) {
    Json::Value document;
    if (load && internal::ReadJsonFile(path_, document)) LoadFromJson(document);
}

bool MiscConf::LoadFromJson(const Json::Value& value) {
    if (!value.isObject()) return false;
    settings_ = Overlay(DefaultMiscSettings(), value);
    return true;
}

bool MiscConf::IsValid() const {
    return settings_.isObject() && settings_["relay_tunnel"].isObject() &&
           settings_["upnp"].isObject() && settings_["smartdns"].isObject();
}

bool MiscConf::Write(Json::Value& out, bool full) const {
    if (!internal::PrepareObject(out)) return false;
    const Json::Value defaults = DefaultMiscSettings();
    for (const auto& key : settings_.getMemberNames()) {
        if (full || settings_[key] != defaults[key]) out[key] = settings_[key];
    }
    return true;
}

bool MiscConf::Save() { return !path_.empty() && internal::WriteJsonFile(path_, settings_); }

bool MiscConf::OverwriteItem(std::string key, const Json::Value& value) {
    if (key.empty()) return false;
    settings_[key] = value;
    return true;
}

// ---- ServicePermission

ServicePermission::ServicePermission(bool load) : services_(DefaultServices()) {
    Json::Value document;
    if (load && internal::ReadJsonFile(Paths::kServicesConf, document) && document.isArray()) {
        services_ = document;
    }
}

bool ServicePermission::GenPermissionConf() {
    services_ = DefaultServices();
    return internal::WriteJsonFile(Paths::kServicesConf, services_);
}

}  // namespace Relay
}  // namespace ORVO
