#include "sim/workloads/scenario.h"

#include <algorithm>
#include <functional>

#include "sim/faults/fault_mix.h"
#include "sim/workloads/regressions.h"
#include "sim/workloads/workloads.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

using Workload = void (*)(Planner &, Time, Time);

constexpr Time calm_length = World::settling_time + 2 * second;
constexpr Time shortest_phase = 40 * second;
constexpr Time longest_phase = 150 * second;

// Phases of work and faults, each followed by a calm in which all is compared.
void plan_phases(Planner &planner, Workload workload, const FaultMix &mix) {
    const Time duration = planner.settings().duration;
    for (Time begin = 0; begin < duration;) {
        Time end = begin + planner.random.between(shortest_phase / ms, longest_phase / ms) * ms;
        const bool is_last = end + calm_length + shortest_phase > duration;
        if (is_last) end = duration;
        workload(planner, begin, end);
        plan_faults(planner, mix, begin + 3 * second, end);
        if (is_last) return;
        planner.add({end, Kind::calm});
        begin = end + calm_length;
    }
}

// What differs from seed to seed in every scenario.
void vary(Settings &settings) {
    Random random = Random(settings.seed).fork(0x5e7);
    settings.racks = static_cast<std::uint32_t>(1 + random.below(2));
    settings.is_holding = random.chance(100);
    settings.reuses_client_pid = random.chance(250);
    settings.duplicates_per_mille = static_cast<std::uint32_t>(random.below(3) * 25);
    settings.delay_max = random.chance(200) ? 500 * ms : 20 * ms;
}

// How the clients of a scenario differ from those of the others.
struct Manners {
    bool changes_endpoints = true;
    bool has_own_endpoints = true;
    bool has_own_instances = true;
    bool reuses_daemon_pid = false;
};

// A plan that is drawn anew for each seed.
std::function<Plan(Settings)> drawn(Workload workload, const FaultMix &mix,
                                    const Manners &manners = {}) {
    return [=](Settings settings) {
        vary(settings);
        settings.reuses_daemon_pid = manners.reuses_daemon_pid;
        Planner planner(settings);
        planner.changes_endpoints = manners.changes_endpoints;
        planner.has_own_endpoints = manners.has_own_endpoints;
        planner.has_own_instances = manners.has_own_instances;
        plan_phases(planner, workload, mix);
        return planner.finish();
    };
}

constexpr FaultMix all_faults = {.mean_interval = 10 * second,
                                 .daemon_kills = 4,
                                 .daemon_stops = 2,
                                 .machine_halts = 2,
                                 .freezes = 2,
                                 .partitions = 2,
                                 .store_outages = 2,
                                 .store_wipes = 1};

const std::vector<Scenario> all = {
    {"steady", "all that clients do, without faults", drawn(plan_steady, {})},
    {"restarts", "daemons end and are started again",
     drawn(plan_steady, {.daemon_kills = 4, .daemon_stops = 1})},
    {"outages", "the store goes away, also twice in one period",
     drawn(plan_steady, {.mean_interval = 25 * second, .store_outages = 1})},
    {"partitions", "single nodes lose the store", drawn(plan_steady, {.partitions = 1})},
    {"deaths", "machines halt, and boot or stay away", drawn(plan_steady, {.machine_halts = 1})},
    {"freezes", "machines stand still for a while", drawn(plan_steady, {.freezes = 1})},
    {"wipes", "another, empty store stands in the place of the store",
     drawn(plan_steady, {.mean_interval = 25 * second, .store_outages = 1, .store_wipes = 1})},
    {"memory", "allocations fail in single nodes", drawn(plan_steady, {.memory = 1})},
    {"churn", "names come and go under a few faults of each kind",
     drawn(plan_churn,
           {.daemon_kills = 1, .machine_halts = 1, .partitions = 1, .store_outages = 1})},
    {"rolling", "a service with 500 instances is restarted bit by bit",
     drawn(plan_rolling,
           {.mean_interval = 60 * second, .daemon_kills = 1, .partitions = 1, .store_outages = 1})},
    {"flapping", "publishers come and go many times a second",
     drawn(plan_flapping, {.daemon_kills = 1, .freezes = 1, .partitions = 1, .store_outages = 1})},
    {"storm", "every client registers for everything, again and again",
     drawn(plan_storm, {.daemon_kills = 1, .machine_halts = 1, .store_outages = 1})},
    {"everything", "all faults but lack of memory, often", drawn(plan_steady, all_faults)},
    {"containers", "the same, and each daemon has its predecessor's pid",
     drawn(plan_steady, all_faults, {.reuses_daemon_pid = true})},

    {"regression-withdraw", "a withdrawal beside a service that waits", make_withdraw_beside,
     Role::regression},
    {"regression-change", "a change beside a service that waits", make_change_beside,
     Role::regression},
    {"regression-long-outage", "an outage that ends between the ends of two periods",
     make_long_outage, Role::regression},
    {"regression-twin", "two replays in one period, and a take-over between them", make_twin,
     Role::regression},
    {"regression-roles", "clients change their roles only, also while the store is away",
     drawn(plan_steady, all_faults, {.changes_endpoints = false}), Role::regression},
    {"regression-shared-endpoints", "a process publishes several instances at one endpoint",
     drawn(plan_steady, all_faults, {.changes_endpoints = false, .has_own_endpoints = false}),
     Role::regression},
    {"regression-last-of-rack", "the only node of a rack dies, and who has seen it",
     make_last_of_rack, Role::regression},

    {"limit-shared-instances", "processes of one node publish the same instance",
     drawn(plan_steady, all_faults, {.has_own_instances = false}), Role::limit},
    {"limit-two-heirs", "one entry is taken over by two processes", make_two_heirs, Role::limit},
    {"limit-containers", "the same, and each daemon has its predecessor's pid",
     drawn(plan_steady, all_faults, {.has_own_instances = false, .reuses_daemon_pid = true}),
     Role::limit},
};

} // namespace

const std::vector<Scenario> &scenarios() {
    return all;
}

std::vector<const Scenario *> scenarios_of(Role role) {
    std::vector<const Scenario *> some;
    for (const Scenario &scenario : all)
        if (scenario.role == role) some.push_back(&scenario);
    return some;
}

const Scenario *find_scenario(const std::string &name) {
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Scenario &s) { return s.name == name; });
    return found != all.end() ? &*found : nullptr;
}

} // namespace ds::sim
