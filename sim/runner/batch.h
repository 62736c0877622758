// Many seeds, spread over processes. A process that crashes or stands still is taken for the
// failure of the seed that it was running, and another one goes on behind it.
#pragma once
#include <functional>
#include <vector>

#include "sim/runner/verdict.h"

namespace ds::sim {

// Calls `take` with each verdict, in no particular order, until it returns false.
void run_batch(const std::vector<Job> &jobs, int processes, int seconds_max,
               const std::function<bool(const Verdict &)> &take);

} // namespace ds::sim
