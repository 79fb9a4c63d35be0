// Layout of orvorelayd.conf shared by RelaydConf and the section objects that
// save themselves into it.
#pragma once

#include <json/value.h>
#include <orvo/relayd.h>

#include <string>

namespace ORVO {
namespace Relay {
namespace internal {

constexpr const char kServerGlobalSection[] = "server_global";
constexpr const char kServerControlSection[] = "server_control";
constexpr const char kServerAliasSection[] = "server_alias";
constexpr const char kKivoSection[] = "kivo";
constexpr const char kServerIdKey[] = "server_id";

// `path`, or the relay configuration file when it is null or empty.
std::string RelaydConfPath(const char* path);

// The document a fresh RelaydConf writes.
Json::Value DefaultRelaydDocument();

// Replaces the top-level member `key` of the relay configuration file at
// `path`, keeping everything else; a missing or unusable file is started
// afresh from the defaults.
bool SaveRelaydMember(const std::string& path, const std::string& key, const Json::Value& value);

// Saves `section` (which must be valid) as the member `key`.
bool SaveRelaydSection(const std::string& path, const std::string& key, const Config& section);

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
