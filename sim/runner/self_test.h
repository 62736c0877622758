// The proof that the checkers can fail: each thing that is broken on purpose is found, by the
// checker that is meant for it.
#pragma once
#include "sim/runner/options.h"

namespace ds::sim {

int run_self_test(const Options &options);

} // namespace ds::sim
