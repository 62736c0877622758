#include "sim/workloads/workloads.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t publishers_per_node = 2;
constexpr Time mean_interval = 400 * ms;
constexpr std::uint32_t names_at_once = 30; // names move on: the oldest is not used again

} // namespace

void plan_churn(Planner &planner, Time begin, Time end) {
    Random &random = planner.random;
    if (planner.clients().empty())
        for (std::uint32_t node = 0; node < planner.settings().nodes; node++)
            for (std::uint32_t i = 0; i < publishers_per_node; i++)
                planner.new_client(begin + random.below(1000) * ms, node);
    std::uint32_t newest = static_cast<std::uint32_t>(begin / second);
    auto &clients = planner.clients();
    for (Time at = begin + second; at < end; at += random.below(2 * mean_interval / ms) * ms) {
        Planner::Client &client = clients[random.below(clients.size())];
        if (random.chance(200)) newest++;
        const std::uint32_t name = newest + static_cast<std::uint32_t>(random.below(names_at_once));
        const std::uint64_t drawn = random.below(100);
        if (drawn < 40)
            planner.publish(at, client, name, 0, planner.some_scope());
        else if (drawn < 75)
            planner.withdraw(at, client);
        else if (drawn < 90)
            planner.watch(at, client, name);
        else
            planner.unwatch(at, client);
    }
}

} // namespace ds::sim
