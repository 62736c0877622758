// Runs of two servers that take turns.
#pragma once
#include <chrono>

#include "server_process.h"

namespace ds::bench {

using Clock = std::chrono::steady_clock;
inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Calls measure(kind) for both servers in each run, in alternating order.
template <typename Function> void alternate(int runs, Function &&measure) {
    for (int run = 0; run < runs; run++) {
        const bool daemon_first = run % 2 == 0;
        measure(daemon_first ? Kind::daemon : Kind::null_server);
        measure(daemon_first ? Kind::null_server : Kind::daemon);
    }
}

} // namespace ds::bench
