#include "sim/workloads/workloads.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t clients_per_node = 8;
constexpr std::uint32_t names = 25;
constexpr Time between_storms = 20 * second;

// Drawn one by one: the order in which a call's arguments are made differs between compilers.
void publish_one(Planner &planner, Time at, Planner::Client &client, std::uint32_t instance) {
    const auto name = static_cast<std::uint32_t>(planner.random.below(names));
    planner.publish(at, client, name, instance, planner.some_scope());
}

} // namespace

void plan_storm(Planner &planner, Time begin, Time end) {
    Random &random = planner.random;
    auto &clients = planner.clients();
    if (clients.empty())
        for (std::uint32_t node = 0; node < planner.settings().nodes; node++)
            for (std::uint32_t i = 0; i < clients_per_node; i++) {
                Planner::Client &client = planner.new_client(begin, node);
                publish_one(planner, begin, client, i);
            }
    for (Time at = begin + 2 * second; at < end; at += between_storms)
        for (Planner::Client &client : clients) {
            const Time soon = at + random.below(300) * ms;
            if (soon >= end) continue;
            if (client.watched.empty())
                for (std::uint32_t name = 0; name < names; name++)
                    planner.watch(soon, client, name);
            while (!client.watched.empty() && random.chance(600))
                planner.unwatch(soon + 100 * ms, client);
            if (random.chance(100)) publish_one(planner, soon, client, 0);
        }
}

} // namespace ds::sim
