#include "sim/workloads/planner.h"

#include <algorithm>
#include <iterator>

#include "ds_server_lib.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t instances_max = 1000; // of one client

} // namespace

Plan Planner::finish() {
    std::stable_sort(plan_.ops.begin(), plan_.ops.end(),
                     [](const Op &a, const Op &b) { return a.at < b.at; });
    return std::move(plan_);
}

std::uint32_t Planner::some_scope() {
    const std::uint64_t drawn = random.below(10);
    return drawn < 6 ? DS_SCOPE_SYSTEM : drawn < 8 ? DS_SCOPE_RACK : DS_SCOPE_LOCAL;
}

Planner::Client &Planner::new_client(Time at, std::uint32_t node) {
    Client client;
    client.index = static_cast<std::uint32_t>(clients_.size());
    client.node = node;
    clients_.push_back(client);
    start(at, clients_.back());
    return clients_.back();
}

void Planner::start(Time at, Client &client) {
    client.is_alive = true;
    add({at, Kind::start_client, client.index, client.node});
}

void Planner::kill(Time at, Client &client) {
    client.is_alive = false;
    add({at, Kind::kill_client, client.index});
}

void Planner::publish(Time at, Client &client, std::uint32_t name, std::uint32_t instance,
                      std::uint32_t scope) {
    if (has_own_instances) instance += instances_max * client.index;
    client.published.insert({name, instance, scope});
    const std::uint32_t owner = has_own_endpoints ? instance : 0;
    std::uint32_t &endpoint =
        endpoints_[{client.index, name, owner, has_own_endpoints ? scope : 0}];
    if (endpoint == 0 || changes_endpoints) endpoint = next_endpoint_++;
    const auto role = changes_roles ? static_cast<std::uint32_t>(random.below(3)) : 0;
    add({at, Kind::publish, client.index, name, instance * 4 + scope, endpoint * 4 + role});
}

void Planner::withdraw(Time at, Client &client) {
    if (client.published.empty()) return;
    const auto which =
        std::next(client.published.begin(),
                  static_cast<std::ptrdiff_t>(random.below(client.published.size())));
    const auto [name, instance, scope] = *which;
    client.published.erase(which);
    add({at, Kind::withdraw, client.index, name, instance * 4 + scope});
}

void Planner::watch(Time at, Client &client, std::uint32_t name) {
    client.watched.insert(name);
    add({at, Kind::watch, client.index, name});
}

void Planner::unwatch(Time at, Client &client) {
    if (client.watched.empty()) return;
    const auto which = std::next(client.watched.begin(),
                                 static_cast<std::ptrdiff_t>(random.below(client.watched.size())));
    add({at, Kind::unwatch, client.index, *which});
    client.watched.erase(which);
}

} // namespace ds::sim
