// How the front sets up libevent's HTTP engine and the limits it derives
// from the options.
#pragma once

#include <event2/http.h>

#include "connection_guard.h"
#include "options.h"
#include "sessions.h"

namespace farlink::host {

void ConfigureEngine(evhttp* http, const Options& options,
                     void (*onRequest)(evhttp_request*, void*), void* context);
ConnectionLimits ConnectionLimitsOf(const Options& options);
SessionLimits SessionLimitsOf(const Options& options);

}  // namespace farlink::host
