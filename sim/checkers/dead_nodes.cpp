#include "sim/checkers/checkers.h"
#include "sim/world/names.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

// Whoever was connected all the time has heard of the death.
bool has_heard(World &world, Daemon &daemon, Time halted_at) {
    const Time now = world.clock().now;
    return daemon.engine().is_connected() && daemon.engine().connected_at() < halted_at &&
           world.network().open_at(daemon.node()) + second < now &&
           world.machine(daemon.node()).frozen_until + second < now;
}

std::string find_service_of(Daemon &daemon, int node) {
    std::string found;
    daemon.look([&] {
        for (ds_service_elem_t *element = daemon.records().first(); element != nullptr;
             element = host::Records::next(element))
            for (ds_service_t *service = ds_service_get_service_list_head(element);
                 service != nullptr; service = ds_service_get_next_in_service_list(service))
                if (instance_of(service).node == node)
                    found = std::string("node ") + std::to_string(daemon.node()) + " has " +
                            element->name + " of node " + std::to_string(node) + ", which is dead";
    });
    return found;
}

} // namespace

std::string find_dead_service(World &world, int node, Time halted_at) {
    const Machine &dead = world.machine(node);
    if (dead.is_up || dead.halted_at != halted_at) return {};
    for (Machine &machine : world.machines()) {
        if (!machine.daemon || !has_heard(world, *machine.daemon, halted_at)) continue;
        if (std::string found = find_service_of(*machine.daemon, node); !found.empty())
            return found;
    }
    return {};
}

} // namespace ds::sim
