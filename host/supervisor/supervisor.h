// The process farlink-host starts as: it keeps root, reads no network input,
// forks the workers and the front, replaces workers that end, kills a worker
// when the front asks (a handler overran its time), and stops everything on
// SIGTERM or SIGINT. See docs/host.md for the picture.
#pragma once

#include "options.h"

namespace farlink::host {

// Returns the exit status: 0 after an orderly stop, 1 when requests had to
// be abandoned or a process failed. Throws StartupError before serving.
int Supervise(const Options& options);

}  // namespace farlink::host
