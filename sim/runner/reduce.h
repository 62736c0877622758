// From a plan that fails to a short one that fails in the same manner.
#pragma once
#include <cstdint>
#include <functional>
#include <vector>

#include "sim/runner/verdict.h"

namespace ds::sim {

struct Reduced {
    std::vector<std::size_t> kept; // of the plan's operations
    Verdict verdict;
    std::uint64_t runs = 0;
};

Plan plan_with(const Plan &plan, const std::vector<std::size_t> &kept);
Reduced reduce(const Plan &plan, const Verdict &verdict, int seconds_max);

} // namespace ds::sim
