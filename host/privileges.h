// The server's identities. It starts as root and serves with the service
// user's effective ids while the real and saved ids stay 0, so that a
// module's privileged sections can switch the effective ids to 0 and back.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <shared_mutex>
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
// Call before any thread is started.
void DropEffectiveIds(const ServiceIds& ids);

// For the last steps of shutdown (removing root-owned files).
void RegainRoot();

enum class IdsCheck {
    kOk,        // the effective ids were the service's
    kRestored,  // a handler left other effective ids; they were put back
    kUnchecked  // another handler was running; its ids are not ours to judge
};

const char* LogToken(IdsCheck check);

// Runs request work and then checks that the effective ids are the service
// ids again. The ids are process-wide, so a check is only meaningful while no
// other handler runs: work holds the lock shared and the check takes it
// exclusively, without waiting.
class IdsWarden {
public:
    explicit IdsWarden(ServiceIds ids) : ids_(std::move(ids)) {}

    template <typename Work>
    IdsCheck Run(Work&& work) {
        {
            std::shared_lock<std::shared_mutex> running(lock_);
            work();
        }
        return CheckWhenAlone();
    }

    unsigned long RestoreCount() const { return restores_.load(); }

private:
    IdsCheck CheckWhenAlone();

    ServiceIds ids_;
    std::shared_mutex lock_;
    std::atomic<unsigned long> restores_{0};
};

}  // namespace farlink::host
