// Scenarios: what clients do, and which faults befall them.
#pragma once
#include <string>
#include <vector>

#include "sim/base/plan.h"

namespace ds::sim {

struct Scenario {
    const char *name;
    const char *text;
    Plan (*make)(Settings settings);
};

const std::vector<Scenario> &scenarios();
const Scenario *find_scenario(const std::string &name);

} // namespace ds::sim
