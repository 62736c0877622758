// What clients do from `begin` to `end`. Each workload goes on with the clients that there are.
#pragma once
#include "sim/workloads/planner.h"

namespace ds::sim {

// Everything that clients do, now and then. steady.cpp
void plan_steady(Planner &planner, Time begin, Time end);
// Names come and go, few instances each. churn.cpp
void plan_churn(Planner &planner, Time begin, Time end);

// One service with 500 instances is restarted, a few instances at a time. rolling.cpp
void plan_rolling(Planner &planner, Time begin, Time end);
// Publishers that come and go many times a second, and watchers of them. flapping.cpp
void plan_flapping(Planner &planner, Time begin, Time end);
// Every client registers for everything and lets go again, at once. storm.cpp
void plan_storm(Planner &planner, Time begin, Time end);

} // namespace ds::sim
