#include "sim/workloads/scenario.h"

#include <algorithm>

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

template <Workload workload>
Plan plan_of(Settings settings, const FaultMix &mix, const Manners &manners = {}) {
    vary(settings);
    settings.reuses_daemon_pid = manners.reuses_daemon_pid;
    Planner planner(settings);
    planner.changes_endpoints = manners.changes_endpoints;
    planner.has_own_endpoints = manners.has_own_endpoints;
    planner.has_own_instances = manners.has_own_instances;
    plan_phases(planner, workload, mix);
    return planner.finish();
}

Plan make_steady(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), {});
}
Plan make_restarts(Settings settings) {
    FaultMix mix;
    mix.daemon_kills = 4;
    mix.daemon_stops = 1;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_outages(Settings settings) {
    FaultMix mix;
    mix.store_outages = 1;
    mix.mean_interval = 25 * second;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_partitions(Settings settings) {
    FaultMix mix;
    mix.partitions = 1;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_deaths(Settings settings) {
    FaultMix mix;
    mix.machine_halts = 1;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_freezes(Settings settings) {
    FaultMix mix;
    mix.freezes = 1;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_wipes(Settings settings) {
    FaultMix mix;
    mix.store_wipes = 1;
    mix.store_outages = 1;
    mix.mean_interval = 25 * second;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_memory(Settings settings) {
    FaultMix mix;
    mix.memory = 1;
    return plan_of<plan_steady>(std::move(settings), mix);
}
Plan make_churn(Settings settings) {
    FaultMix mix;
    mix.daemon_kills = mix.store_outages = mix.partitions = mix.machine_halts = 1;
    return plan_of<plan_churn>(std::move(settings), mix);
}
Plan make_rolling(Settings settings) {
    FaultMix mix;
    mix.mean_interval = 60 * second;
    mix.daemon_kills = mix.store_outages = mix.partitions = 1;
    return plan_of<plan_rolling>(std::move(settings), mix);
}
Plan make_flapping(Settings settings) {
    FaultMix mix;
    mix.daemon_kills = mix.store_outages = mix.partitions = mix.freezes = 1;
    return plan_of<plan_flapping>(std::move(settings), mix);
}
Plan make_storm(Settings settings) {
    FaultMix mix;
    mix.daemon_kills = mix.store_outages = mix.machine_halts = 1;
    return plan_of<plan_storm>(std::move(settings), mix);
}
FaultMix all_faults() {
    FaultMix mix;
    mix.mean_interval = 10 * second;
    mix.daemon_kills = 4;
    mix.daemon_stops = mix.machine_halts = mix.freezes = mix.partitions = mix.store_outages = 2;
    mix.store_wipes = 1;
    return mix;
}
Plan make_everything(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), all_faults());
}
Plan make_containers(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), all_faults(), {.reuses_daemon_pid = true});
}
Plan make_shared_containers(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), all_faults(),
                                {.has_own_instances = false, .reuses_daemon_pid = true});
}
Plan make_roles(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), all_faults(), {.changes_endpoints = false});
}
Plan make_shared_endpoints(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), all_faults(),
                                {.changes_endpoints = false, .has_own_endpoints = false});
}

Plan make_shared_instances(Settings settings) {
    return plan_of<plan_steady>(std::move(settings), all_faults(), {.has_own_instances = false});
}

} // namespace

const std::vector<Scenario> &scenarios() {
    static const std::vector<Scenario> all = {
        {"steady", "all that clients do, without faults", make_steady},
        {"restarts", "daemons end and are started again", make_restarts},
        {"outages", "the store goes away, also twice in one period", make_outages},
        {"partitions", "single nodes lose the store", make_partitions},
        {"deaths", "machines halt, and boot or stay away", make_deaths},
        {"freezes", "machines stand still for a while", make_freezes},
        {"wipes", "another, empty store stands in the place of the store", make_wipes},
        {"memory", "allocations fail in single nodes", make_memory},
        {"churn", "names come and go under a few faults of each kind", make_churn},
        {"rolling", "a service with 500 instances is restarted bit by bit", make_rolling},
        {"flapping", "publishers come and go many times a second", make_flapping},
        {"storm", "every client registers for everything, again and again", make_storm},
        {"everything", "all faults but lack of memory, often", make_everything},
        {"containers", "the same, and each daemon has its predecessor's pid", make_containers},
        {"regression-withdraw", "a withdrawal beside a service that waits", make_withdraw_beside,
         Role::regression},
        {"regression-change", "a change beside a service that waits", make_change_beside,
         Role::regression},
        {"regression-long-outage", "an outage that ends between the ends of two periods",
         make_long_outage, Role::regression},
        {"regression-twin", "two replays in one period, and a take-over between them", make_twin,
         Role::regression},
        {"regression-roles", "clients change their roles only, also while the store is away",
         make_roles, Role::regression},
        {"regression-shared-endpoints", "a process publishes several instances at one endpoint",
         make_shared_endpoints, Role::regression},
        {"limit-shared-instances", "processes of one node publish the same instance",
         make_shared_instances, Role::limit},
        {"limit-two-heirs", "one entry is taken over by two processes", make_two_heirs,
         Role::limit},
        {"limit-containers", "the same, and each daemon has its predecessor's pid",
         make_shared_containers, Role::limit},
    };
    return all;
}

std::vector<const Scenario *> scenarios_of(Role role) {
    std::vector<const Scenario *> some;
    for (const Scenario &scenario : scenarios())
        if (scenario.role == role) some.push_back(&scenario);
    return some;
}

const Scenario *find_scenario(const std::string &name) {
    const auto found = std::find_if(scenarios().begin(), scenarios().end(),
                                    [&](const Scenario &s) { return s.name == name; });
    return found != scenarios().end() ? &*found : nullptr;
}

} // namespace ds::sim
