// What clients do from `begin` to `end`. Each workload goes on with the clients that there are.
#pragma once
#include "sim/workloads/planner.h"

namespace ds::sim {

// Everything that clients do, now and then. steady.cpp
void plan_steady(Planner &planner, Time begin, Time end);
// Names come and go, few instances each. churn.cpp
void plan_churn(Planner &planner, Time begin, Time end);

} // namespace ds::sim
