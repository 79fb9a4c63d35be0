// What every handler does the same way: reading typed parameters and giving
// the one answer.
#pragma once

#include <orvo/relayd.h>
#include <orvo/webapi.h>

#include <string>

constexpr char kMiscConfPath[] = "/usr/orvo/etc/orvorelayd/misc.conf";
constexpr char kServicesConfPath[] = "/usr/orvo/etc/orvorelayd/services.conf";

// A parameter of the wrong JSON type counts as missing: the handler answers
// it as an invalid parameter rather than letting a conversion throw.
bool ReadBoolParam(const ORVO::APIRequest& request, const char* name, bool& value);
bool ReadStringParam(const ORVO::APIRequest& request, const char* name, std::string& value);

// Answers success (with `data`) when `code` is the module's success code and
// the error `code` otherwise.
void Finish(ORVO::APIResponse* response, int code, const Json::Value& data = Json::Value());

// A file may hold any JSON, and asking an array or a scalar for a member
// throws: these look only into objects.
bool HasMember(const Json::Value& document, const char* key);
Json::Value MemberOrNull(const Json::Value& document, const char* key);

// The administration interface sends a misc.conf setting as the request's
// whole parameter object, so that object is what is stored under `key`.
// False, with nothing stored, when the parameter `required` is absent.
bool OverwriteMiscItem(const ORVO::APIRequest& request, const char* required, const char* key,
                       ORVO::Relay::MiscConf& misc);
