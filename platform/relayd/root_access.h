// Root for a single file access of an operation that its callers make
// without raising their ids.
//
// The web API server runs with root as its real and saved ids and its
// service user as the effective ones. Callers raise them around the calls
// they know to be privileged; the credentials read for a registration and
// the alias status record are not among them, yet their files belong to
// root. Like the daemon program, such an operation takes root back when the
// real ids allow it, and only for as long as the object lives.
#pragma once

#include <sys/types.h>

namespace ORVO {
namespace Relay {
namespace internal {

class ScopedRootAccess {
public:
    // Does nothing when the effective user is already root or the real user
    // is not; the access then runs with the caller's rights.
    ScopedRootAccess();
    ~ScopedRootAccess();
    ScopedRootAccess(const ScopedRootAccess&) = delete;
    ScopedRootAccess& operator=(const ScopedRootAccess&) = delete;

private:
    uid_t uid_;
    gid_t gid_;
    bool raisedUser_ = false;
    bool raisedGroup_ = false;
};

}  // namespace internal
}  // namespace Relay
}  // namespace ORVO
