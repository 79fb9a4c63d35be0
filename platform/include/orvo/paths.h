// Where the platform keeps its files on the box. Everything lives under the
// box's own /usr/orvo and /etc, so an emulated box can lay these paths out in
// private mounts.
#pragma once

namespace ORVO {
namespace Paths {

constexpr const char kRelaydConfDir[] = "/usr/orvo/etc/orvorelayd";
constexpr const char kRelaydConf[] = "/usr/orvo/etc/orvorelayd/orvorelayd.conf";
constexpr const char kMiscConf[] = "/usr/orvo/etc/orvorelayd/misc.conf";
constexpr const char kServicesConf[] = "/usr/orvo/etc/orvorelayd/services.conf";
// Credentials of the box at the control server (AuthConf).
constexpr const char kAuthConf[] = "/usr/orvo/etc/orvorelayd/auth.conf";
// Alias status records (AliasStatus).
constexpr const char kAliasStatus[] = "/usr/orvo/etc/orvorelayd/alias_status.conf";
// Relay SNI setting (Utils::EnableRelaySNI / DisableRelaySNI).
constexpr const char kSniConf[] = "/usr/orvo/etc/orvorelayd/sni.conf";

constexpr const char kHostInfo[] = "/etc/orvoinfo.conf";

constexpr const char kRelaydProgram[] = "/usr/orvo/sbin/orvorelayd";
constexpr const char kKivoProgram[] = "/usr/orvo/bin/orvokivo";

// Runtime state of daemons: pid files, status, request records.
constexpr const char kRunDir[] = "/usr/orvo/var/run";
constexpr const char kRelaydPidFile[] = "/usr/orvo/var/run/orvorelayd.pid";
constexpr const char kRelaydStatus[] = "/usr/orvo/var/run/orvorelayd.status";
// Service manager: one line per reload request ("<unit> <result>").
constexpr const char kSystemdReloadLog[] = "/usr/orvo/var/run/systemd-reload.log";
// Cloud service: one line per action handed over.
constexpr const char kCloudServiceLog[] = "/usr/orvo/var/run/cloudservice-actions.log";

// Account service state (liborvokivo and orvokivo).
constexpr const char kKivoDir[] = "/usr/orvo/etc/orvokivo";
constexpr const char kKivoAccount[] = "/usr/orvo/etc/orvokivo/account.conf";
constexpr const char kKivoQueryLog[] = "/usr/orvo/var/run/orvokivo-query.log";

}  // namespace Paths
}  // namespace ORVO
