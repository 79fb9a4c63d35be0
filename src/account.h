// Account lookup: the kivo account bound to the server, read as root. The
// reads hand back the account library's results unchanged and log nothing:
// callers ask ORVOKIVOErrGet() why a read failed. The background refresh
// logs a failure to start the tool.
#pragma once

#include <json/value.h>

struct _tag_kivo_INFO_;

int OrvoAccountGet(_tag_kivo_INFO_* info);
int OrvoAccountQueryInfo(Json::Value& info);
// Starts the account tool in the background so that a later read finds fresh
// data ("--cache": the cached data is good enough); negative when the tool
// could not be started.
int OrvoAccountQueryInfoBackground(bool useCache);
