#include "privileges.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "startup_error.h"

namespace farlink::host {

namespace {

std::string ErrnoText() { return std::strerror(errno); }

bool EffectiveIdsAre(uid_t uid, gid_t gid) { return geteuid() == uid && getegid() == gid; }

// The group can only be changed with an effective uid of 0, which the saved
// uid 0 always allows us to take.
bool SwitchEffectiveIds(uid_t uid, gid_t gid) {
    return setresuid(-1, 0, -1) == 0 && setresgid(-1, gid, -1) == 0 &&
           setresuid(-1, uid, -1) == 0 && EffectiveIdsAre(uid, gid);
}

}  // namespace

void RequireRoot() {
    if (getuid() != 0 || geteuid() != 0) throw StartupError("must be started as root");
}

ServiceIds LookupServiceUser(const std::string& name) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    int error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (error != 0 || found == nullptr) throw StartupError("no such user '" + name + "'");
    if (found->pw_uid == 0) throw StartupError("service user '" + name + "' is root");
    return ServiceIds{name, found->pw_uid, found->pw_gid};
}

void DropEffectiveIds(const ServiceIds& ids) {
    if (setgroups(1, &ids.gid) != 0) throw StartupError("setgroups: " + ErrnoText());
    if (setresgid(-1, ids.gid, -1) != 0) throw StartupError("setresgid: " + ErrnoText());
    if (setresuid(-1, ids.uid, -1) != 0) throw StartupError("setresuid: " + ErrnoText());
    if (!EffectiveIdsAre(ids.uid, ids.gid)) throw StartupError("effective ids did not change");
}

void DropAllIds(const ServiceIds& ids) {
    if (setgroups(1, &ids.gid) != 0) throw StartupError("setgroups: " + ErrnoText());
    if (setresgid(ids.gid, ids.gid, ids.gid) != 0) throw StartupError("setresgid: " + ErrnoText());
    if (setresuid(ids.uid, ids.uid, ids.uid) != 0) throw StartupError("setresuid: " + ErrnoText());
    if (setresuid(-1, 0, -1) == 0) throw StartupError("root could be taken back");
}

const char* LogToken(IdsCheck check) { return check == IdsCheck::kOk ? "ids-ok" : "ids-restored"; }

IdsCheck CheckEffectiveIds(const ServiceIds& ids) {
    if (EffectiveIdsAre(ids.uid, ids.gid)) return IdsCheck::kOk;

    static unsigned long restores = 0;
    const uid_t leftUid = geteuid();
    const gid_t leftGid = getegid();
    if (!SwitchEffectiveIds(ids.uid, ids.gid)) {
        std::fprintf(stderr,
                     "farlink-host: FATAL: cannot restore effective ids %u/%u (left at %u/%u)\n",
                     ids.uid, ids.gid, leftUid, leftGid);
        std::_Exit(EXIT_FAILURE);
    }
    std::fprintf(stderr,
                 "farlink-host: WARNING: a handler left effective ids %u/%u; restored %u/%u "
                 "(%lu so far in worker %d)\n",
                 leftUid, leftGid, ids.uid, ids.gid, ++restores, static_cast<int>(getpid()));
    return IdsCheck::kRestored;
}

}  // namespace farlink::host
