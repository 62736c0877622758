#include "sim/checkers/checkers.h"

#include "host/records.h"
#include "sim/world/world.h"

namespace ds::sim {

void Checkers::machine_halted(int node) {
    world_.clock().after(death_noticed_after, nobody,
                         [this, node, halted_at = world_.machine(node).halted_at] {
                             const std::string found = find_dead_service(world_, node, halted_at);
                             if (!found.empty()) world_.fail("dead node", found);
                         });
}

void Checkers::after_turn(Daemon &daemon) {
    const ds_db_t *db = daemon.database();
    if (std::string found = find_broken_structure(db); !found.empty())
        return world_.fail("structure", found);
    if (host::is_restart_period_open()) return;
    if (std::string found = find_stale_placeholder(db); !found.empty())
        world_.fail("placeholder", found);
}

void Checkers::on_snapshot(Daemon &daemon, const Snapshot &snapshot) {
    if (std::string found = find_discontinuity(daemon, snapshot); !found.empty())
        return world_.fail("continuity", found);
    if (std::string found = find_remote_gap(daemon, snapshot, world_.clock().now); !found.empty())
        world_.fail("remote", found);
}

void Checkers::on_told(const Client &client, const Snapshot &snapshot, const Client::Watch &watch) {
    if (std::string found = find_regress(client, snapshot, watch); !found.empty())
        world_.fail("version", found);
}

void Checkers::when_settled() {
    if (std::string found = find_divergence(world_); !found.empty())
        return world_.fail("convergence", found);
    if (std::string found = find_outdated_watcher(world_); !found.empty())
        world_.fail("newest", found);
}

void Checkers::when_empty() {
    if (std::string found = find_leftovers(world_); !found.empty()) world_.fail("memory", found);
}

} // namespace ds::sim
