// The relay daemon's JSON configuration files. Every write goes through the
// relay library's objects inside a privileged section; a file that does not
// parse is moved aside to "<path>.bad" (deleted if that fails). ReadJsonFile,
// RenameBadConfig and WriteMiscConfigToFile log their failures; WriteJsonFile,
// WriteConfig, SetConfig and GenerateServiceConfig leave that to the caller,
// which knows what the failure means.
#pragma once

#include <json/value.h>
#include <orvo/relayd.h>

#include <string>

bool ReadJsonFile(const std::string& path, Json::Value& value);
// True only when the file was moved to "<path>.bad".
bool RenameBadConfig(const std::string& path);
bool WriteJsonFile(const char* path, Json::Value value);
bool WriteConfig(ORVO::Relay::Config* config);
// Loads `document[key]` into `config`; false, with `config` untouched, when
// the document is not an object or lacks the key.
bool SetConfig(Json::Value document, const std::string& key, ORVO::Relay::Config& config);
// kApiSuccess when written and the daemon told, kApiErrFailed otherwise.
int WriteMiscConfigToFile(ORVO::Relay::MiscConf& config);
void GenerateServiceConfig();
