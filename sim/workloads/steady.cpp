#include "sim/workloads/workloads.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t clients_per_node = 3;
constexpr std::uint32_t names = 8;
constexpr std::uint32_t instances = 3;
constexpr Time mean_interval = 1500 * ms; // between two operations of all clients

// Drawn one by one: the order in which a call's arguments are made differs between compilers.
void publish_one(Planner &planner, Time at, Planner::Client &client) {
    const auto name = static_cast<std::uint32_t>(planner.random.below(names));
    const auto instance = static_cast<std::uint32_t>(planner.random.below(instances));
    planner.publish(at, client, name, instance, planner.some_scope());
}

void begin_with(Planner &planner, Time begin) {
    Random &random = planner.random;
    for (std::uint32_t node = 0; node < planner.settings().nodes; node++)
        for (std::uint32_t i = 0; i < clients_per_node; i++) {
            const Time at = begin + random.below(2000) * ms;
            Planner::Client &client = planner.new_client(at, node);
            for (std::uint64_t left = random.below(4); left > 0; left--)
                publish_one(planner, at, client);
            for (std::uint64_t left = random.below(3); left > 0; left--)
                planner.watch(at, client, static_cast<std::uint32_t>(random.below(names)));
        }
}

void add_one(Planner &planner, Time at) {
    Random &random = planner.random;
    auto &clients = planner.clients();
    Planner::Client &client = clients[random.below(clients.size())];
    if (!client.is_alive) return planner.start(at, client);
    const std::uint64_t drawn = random.below(100);
    if (drawn < 45)
        publish_one(planner, at, client);
    else if (drawn < 65)
        planner.withdraw(at, client);
    else if (drawn < 80)
        planner.watch(at, client, static_cast<std::uint32_t>(random.below(names)));
    else if (drawn < 90)
        planner.unwatch(at, client);
    else
        planner.kill(at, client);
}

} // namespace

void plan_steady(Planner &planner, Time begin, Time end) {
    if (planner.clients().empty()) begin_with(planner, begin);
    for (Time at = begin + 2 * second; at < end;
         at += planner.random.below(2 * mean_interval / ms) * ms)
        add_one(planner, at);
}

} // namespace ds::sim
