#include <algorithm>
#include <tuple>

#include "platform/dsr.h"
#include "relay/etcd/records.h"
#include "sim/checkers/checkers.h"
#include "sim/checkers/text.h"
#include "sim/world/names.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

using Names = std::map<std::uint32_t, std::vector<Instance>>;

Names truth_of(World &world) {
    Names truth;
    for (const Client &client : world.clients()) {
        if (!client.is_alive()) continue;
        for (const auto &[key, wish] : client.wishes()) {
            Instance instance;
            instance.node = client.node();
            instance.pid = client.pid();
            std::tie(std::ignore, instance.instance, instance.scope) = key;
            instance.endpoint = wish.endpoint;
            instance.ha_role = wish.ha_role;
            truth[std::get<0>(key)].push_back(instance);
        }
    }
    return truth;
}

bool is_for(World &world, int node, const Instance &instance) {
    if (instance.node == node || instance.scope == DS_SCOPE_SYSTEM) return true;
    return instance.scope == DS_SCOPE_RACK &&
           world.machine(instance.node).rack == world.machine(node).rack;
}

Names seen_by(Daemon &daemon) {
    Names seen;
    daemon.look([&] {
        for (ds_service_elem_t *element = daemon.records().first(); element != nullptr;
             element = host::Records::next(element))
            for (ds_service_t *service = ds_service_get_service_list_head(element);
                 service != nullptr; service = ds_service_get_next_in_service_list(service))
                if (host::is_live(service))
                    seen[number_in(element->name)].push_back(instance_of(service));
    });
    return seen;
}

std::string find_wrong_view(World &world, const Names &truth, int node) {
    Names wanted;
    for (const auto &[name, instances] : truth)
        for (const Instance &instance : instances)
            if (is_for(world, node, instance)) wanted[name].push_back(instance);
    Names seen = seen_by(*world.daemon_of(node));
    for (const auto &[name, instances] : seen)
        wanted[name];
    for (const auto &[name, instances] : wanted)
        if (const std::string difference = difference_of(instances, seen[name]);
            !difference.empty())
            return "node " + std::to_string(node) + ", " + name_text(name) + ":" + difference;
    return {};
}

// The store names no rack's instances apart: pid, instance, scope and node tell them.
std::string find_wrong_entry(World &world, const Names &truth) {
    Names wanted, held;
    for (const auto &[name, instances] : truth)
        for (Instance instance : instances)
            if (instance.scope != DS_SCOPE_LOCAL) wanted[name].push_back(instance);
    const etcd::Keys keys = keys_in(0);
    for (const etcd::KeyValue &item : world.store().range(etcd::range_of("/"))) {
        const auto key = keys.parse_entry(item.key);
        if (!key) continue;
        relay::Update update;
        if (const std::string problem = etcd::decode_update(*key, item.value, update);
            !problem.empty())
            return item.key + ": " + problem;
        Instance instance;
        instance.node = node_of(key->node);
        instance.pid = update.pid;
        instance.instance = number_in(update.instance.value_or(""));
        instance.scope = update.scope;
        ds_decode_endpoint(update.endpoint.data(), update.endpoint.size(), &instance.endpoint,
                           nullptr);
        held[number_in(update.name)].push_back(instance);
    }
    for (auto &[name, instances] : wanted)
        for (Instance &instance : instances)
            instance.ha_role = 0; // the entry's attributes are not decoded here
    for (const auto &[name, instances] : held)
        wanted[name];
    for (const auto &[name, instances] : wanted)
        if (const std::string difference = difference_of(instances, held[name]);
            !difference.empty())
            return "the store, " + name_text(name) + ":" + difference;
    return {};
}

} // namespace

std::string find_divergence(World &world) {
    for (const Client &client : world.clients())
        if (!client.is_settled())
            return "client " + std::to_string(client.index()) + " on node " +
                   std::to_string(client.node()) + " is not served";
    const Names truth = truth_of(world);
    for (std::size_t i = 0; i < world.machines().size(); i++) {
        const int node = static_cast<int>(i);
        if (world.machine(node).is_gone) continue;
        Daemon *daemon = world.daemon_of(node);
        if (daemon == nullptr || !daemon->engine().is_connected())
            return "node " + std::to_string(node) + " is not connected";
        if (daemon->is_any_period_open())
            return "node " + std::to_string(node) + " is in a restart period";
        if (std::string wrong = find_wrong_view(world, truth, node); !wrong.empty()) return wrong;
    }
    // With the last machine the last one goes that would remove what is left.
    return world.is_deserted() ? std::string() : find_wrong_entry(world, truth);
}

} // namespace ds::sim
