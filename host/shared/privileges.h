// The server's identities. It starts as root. A worker serves with the
// service user's effective ids while its real and saved ids stay 0, so that
// a module's privileged sections can switch the effective ids to 0 and back;
// the front gives up root for good.
#pragma once

#include <sys/types.h>

#include <string>

namespace farlink::host {

struct ServiceIds {
    std::string user;
    uid_t uid = 0;
    gid_t gid = 0;
};

// Each throws StartupError with the reason.
void RequireRoot();
ServiceIds LookupServiceUser(const std::string& name);
// For a worker, before it serves: service group as the only supplementary
// group, effective ids the service user's, real and saved ids still 0.
void DropEffectiveIds(const ServiceIds& ids);
// For the front, before it reads from the network: every id the service
// user's, so that root can never be taken back.
void DropAllIds(const ServiceIds& ids);

enum class IdsCheck {
    kOk,       // the effective ids were the service's
    kRestored  // a handler left other effective ids; they were put back
};

const char* LogToken(IdsCheck check);

// After each request in a worker: the effective ids must be the service
// ids again. Left-over ids are put back and reported on stderr; if they
// cannot be, the process ends rather than serve with unknown rights.
IdsCheck CheckEffectiveIds(const ServiceIds& ids);

}  // namespace farlink::host
