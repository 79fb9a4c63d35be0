// The daemon's command line: switching the background daemon on and off,
// reporting whether it runs, and the fail-over check.
#pragma once

#include "emulation.h"

namespace orvorelayd {

// Each returns the process exit status.
int SwitchOn(const EmulationControls& controls);
int SwitchOff(const EmulationControls& controls);
int PrintStatus(const EmulationControls& controls);
int CheckFailover(const EmulationControls& controls);

}  // namespace orvorelayd
