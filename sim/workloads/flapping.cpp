#include "sim/workloads/workloads.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t flapping = 3;
constexpr std::uint32_t watchers = 6;
constexpr std::uint32_t names = 2;

} // namespace

void plan_flapping(Planner &planner, Time begin, Time end) {
    Random &random = planner.random;
    auto &clients = planner.clients();
    if (clients.empty()) {
        for (std::uint32_t i = 0; i < flapping; i++)
            planner.new_client(begin, planner.some_node());
        for (std::uint32_t i = 0; i < watchers; i++)
            planner.watch(begin, planner.new_client(begin, planner.some_node()), i % names);
    }
    // Bursts, with pauses between them that are about as long.
    for (Time at = begin + second; at < end; at += random.below(400) * ms)
        for (std::uint64_t left = random.between(1, 8); left > 0 && at < end; left--) {
            at += random.below(20) * ms;
            Planner::Client &client = clients[random.below(flapping)];
            const auto name = static_cast<std::uint32_t>(random.below(names));
            if (!client.is_alive)
                planner.start(at, client);
            else if (random.chance(60))
                planner.kill(at, client);
            else if (client.published.empty() || random.chance(500))
                planner.publish(at, client, name, 0, planner.some_scope());
            else
                planner.withdraw(at, client);
        }
}

} // namespace ds::sim
