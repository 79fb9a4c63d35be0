// Durations as libevent's timers take them.
#pragma once

#include <sys/time.h>

#include <chrono>

namespace farlink::host {

inline timeval ToTimeval(std::chrono::milliseconds duration) {
    return {static_cast<time_t>(duration.count() / 1000),
            static_cast<suseconds_t>(duration.count() % 1000 * 1000)};
}

}  // namespace farlink::host
