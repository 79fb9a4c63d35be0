#include "privileges.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
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

void RegainRoot() { SwitchEffectiveIds(0, 0); }

const char* LogToken(IdsCheck check) {
    switch (check) {
        case IdsCheck::kOk:
            return "ids-ok";
        case IdsCheck::kRestored:
            return "ids-restored";
        case IdsCheck::kUnchecked:
            return "ids-unchecked";
    }
    return "ids-?";
}

IdsCheck IdsWarden::CheckWhenAlone() {
    std::unique_lock<std::shared_mutex> alone(lock_, std::try_to_lock);
    if (!alone.owns_lock()) return IdsCheck::kUnchecked;
    if (EffectiveIdsAre(ids_.uid, ids_.gid)) return IdsCheck::kOk;

    const uid_t leftUid = geteuid();
    const gid_t leftGid = getegid();
    if (!SwitchEffectiveIds(ids_.uid, ids_.gid)) {
        // Serving on with unknown rights is worse than not serving.
        std::fprintf(stderr,
                     "farlink-host: FATAL: cannot restore effective ids %u/%u (left at %u/%u)\n",
                     ids_.uid, ids_.gid, leftUid, leftGid);
        std::_Exit(EXIT_FAILURE);
    }
    unsigned long count = ++restores_;
    std::fprintf(stderr,
                 "farlink-host: WARNING: a handler left effective ids %u/%u; restored %u/%u "
                 "(%lu so far)\n",
                 leftUid, leftGid, ids_.uid, ids_.gid, count);
    return IdsCheck::kRestored;
}

}  // namespace farlink::host
