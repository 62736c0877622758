#include "ds_server_lib.h"
#include "sim/workloads/workloads.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t instances = 500;
constexpr std::uint32_t at_once = 10;
constexpr Time step = 8 * second; // between two groups
constexpr Time down_max = 1500 * ms;
constexpr std::uint32_t name = 0;

void begin_with(Planner &planner, Time begin) {
    Random &random = planner.random;
    const std::uint32_t nodes = planner.settings().nodes;
    for (std::uint32_t i = 0; i < instances; i++) {
        const Time at = begin + random.below(2000) * ms;
        planner.publish(at, planner.new_client(at, i % nodes), name, i, DS_SCOPE_SYSTEM);
    }
    planner.watch(begin, planner.new_client(begin, planner.some_node()), name);
}

} // namespace

void plan_rolling(Planner &planner, Time begin, Time end) {
    if (planner.clients().empty()) begin_with(planner, begin);
    std::uint32_t next = 0;
    for (Time at = begin + 3 * second; at + down_max < end; at += step)
        for (std::uint32_t i = 0; i < at_once; i++, next = (next + 1) % instances) {
            Planner::Client &client = planner.clients()[next];
            planner.kill(at, client);
            planner.start(at + 1 * ms + planner.random.below(down_max / ms) * ms, client);
        }
}

} // namespace ds::sim
