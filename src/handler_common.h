// What every handler does the same way: reading typed parameters and giving
// the one answer.
#pragma once

#include <orvo/webapi.h>

#include <string>

// A parameter of the wrong JSON type counts as missing: the handler answers
// it as an invalid parameter rather than letting a conversion throw.
bool ReadBoolParam(const ORVO::APIRequest& request, const char* name, bool& value);
bool ReadStringParam(const ORVO::APIRequest& request, const char* name, std::string& value);

// Answers success (with `data`) when `code` is the module's success code and
// the error `code` otherwise.
void Finish(ORVO::APIResponse* response, int code, const Json::Value& data = Json::Value());
