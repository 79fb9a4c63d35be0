#include "root_access.h"

#include <unistd.h>

namespace ORVO {
namespace Relay {
namespace internal {

ScopedRootAccess::ScopedRootAccess() : uid_(geteuid()), gid_(getegid()) {
    if (uid_ == 0 || getuid() != 0 || setresuid(-1, 0, -1) != 0) return;
    raisedUser_ = true;
    // Files made meanwhile then belong to root's group, as they do when the
    // caller raised its ids itself.
    raisedGroup_ = gid_ != 0 && setresgid(-1, 0, -1) == 0;
}

ScopedRootAccess::~ScopedRootAccess() {
    // The group first: once the user is back, the group could not be changed.
    if (raisedGroup_) setresgid(-1, gid_, -1);
    if (raisedUser_) setresuid(-1, uid_, -1);
}

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
