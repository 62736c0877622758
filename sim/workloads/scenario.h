// Scenarios: what clients do, and which faults befall them.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "sim/base/plan.h"

namespace ds::sim {

enum class Role {
    workload,   // many seeds, all good
    regression, // plays what went wrong once
    limit,      // shows what the directory does by design, though a checker objects
};

struct Scenario {
    const char *name;
    const char *text;
    std::function<Plan(Settings)> make;
    Role role = Role::workload;
};

const std::vector<Scenario> &scenarios();
std::vector<const Scenario *> scenarios_of(Role role);
const Scenario *find_scenario(const std::string &name);

} // namespace ds::sim
