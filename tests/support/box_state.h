// What every program run inside the emulated box shares, GoogleTest or not
// (the box tests' fixture and the box fuzz harnesses): the service user the
// host runs the module as, the relay daemon's switch, and the state a
// handler may change, put back to how the box started.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace farlink_test {

// Where the box keeps its run directory; empty outside a box.
std::string BoxRunDir();

// While it lives, this process's effective ids are the box's service user's
// while its real and saved ids stay root: the credentials the host runs the
// module with. Leaving it restores root or ends the program.
class ScopedServiceUser {
public:
    ScopedServiceUser();
    ~ScopedServiceUser();
    ScopedServiceUser(const ScopedServiceUser&) = delete;
    ScopedServiceUser& operator=(const ScopedServiceUser&) = delete;

    uid_t Uid() const { return uid_; }
    gid_t Gid() const { return gid_; }

private:
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

// Runs the box's `orvorelayd --farlink <command>` ("on", "off") and returns
// its exit status (-1 if it could not be run or was killed).
int Relayd(const std::string& command);

// Path -> content of the state a handler may change: the relay's
// configuration directory, the box's information file, the account and the
// resolver's configuration.
using BoxState = std::map<std::string, std::string>;
BoxState ReadBoxState();
// The state the box started with.
const BoxState& InitialBoxState();
// Stops the relay daemon if it runs and puts every file back, content and
// mode, in place (the single files are bind mounts); false if one could
// not be.
bool RestoreBox();

}  // namespace farlink_test
