// Which faults befall a world, and how often.
#pragma once
#include <cstdint>

#include "sim/workloads/planner.h"

namespace ds::sim {

struct FaultMix {
    Time mean_interval = 15 * second;
    // Weights.
    std::uint32_t daemon_kills = 0;
    std::uint32_t daemon_stops = 0;
    std::uint32_t machine_halts = 0;
    std::uint32_t freezes = 0;
    std::uint32_t partitions = 0;
    std::uint32_t store_outages = 0;
    std::uint32_t store_wipes = 0;
    std::uint32_t memory = 0;
};

// Faults from `begin` to `end`; each has ended when `end` comes, but for machines gone for good.
void plan_faults(Planner &planner, const FaultMix &mix, Time begin, Time end);

} // namespace ds::sim
