// The proof that the checkers can fail: each thing that is broken on purpose is found, by the
// checker that is meant for it.
#pragma once
#include "sim/runner/options.h"

namespace ds::sim {

int run_self_test(const Options &options);

// Each line of the file names a scenario, a seed and the hash that the run came to; it has to come
// to it in every build. Prints the lines as they should be.
int check_hashes(const Options &options);

} // namespace ds::sim
