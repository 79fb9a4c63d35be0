#include "account.h"

#include <orvo/core.h>
#include <orvo/kivo.h>

#include "critical_section.h"
#include "log.h"

namespace {

constexpr const char* kLogSource = kUtilsLogSource;

constexpr char kKivoProgram[] = "/usr/orvo/bin/orvokivo";
// The core library's "start it and do not wait, in a session of its own":
// the refresh outlives the request and must not hold the host's terminal or
// descriptors.
constexpr int kExecInBackground = OLIBC_EXEC_NOWAIT | OLIBC_EXEC_DETACH;

}  // namespace

int OrvoAccountGet(_tag_kivo_INFO_* info) { return AS_ROOT(ORVOKIVOAccountGet(info)); }

int OrvoAccountQueryInfo(Json::Value& info) {
    return AS_ROOT(ORVOKIVOAccountQueryInfo(info, true, true));
}

int OrvoAccountQueryInfoBackground(bool useCache) {
    const int result =
        AS_ROOT(useCache ? OLIBCExecl(kKivoProgram, kExecInBackground, "--query_account", "--cache",
                                      nullptr)
                         : OLIBCExecl(kKivoProgram, kExecInBackground, "--query_account", nullptr));
    if (result < 0) FARLINK_LOG("Failed to execute orvokivo, ret: %d", result);
    return result;
}
