#include "sim/checkers/checkers.h"
#include "sim/checkers/text.h"
#include "sim/world/names.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

std::string find_outdated(Daemon &daemon, const Client &client, std::uint32_t name,
                          const Client::Watch &watch) {
    SnapshotPtr newest;
    daemon.look([&] {
        ds_service_elem_t *element = daemon.records().find(name_text(name));
        if (element != nullptr) newest = snapshot_of(element);
    });
    const std::string who = "client " + std::to_string(client.index()) + " on node " +
                            std::to_string(daemon.node()) + " watches " + name_text(name);
    if (!newest) return who + ", which has no element";
    const Snapshot *told = watch.reported.newest();
    if (told == nullptr) return who + " and was told nothing";
    if (told->is_reconciling) return who + " and was not told that all is settled";
    const std::string difference = difference_of(newest->instances, told->instances);
    return difference.empty() ? "" : who + " and" + difference;
}

} // namespace

std::string find_outdated_watcher(World &world) {
    for (const Client &client : world.clients()) {
        Daemon *daemon = world.daemon_of(client.node());
        if (!client.is_alive() || daemon == nullptr) continue;
        for (const auto &[name, watch] : client.watches())
            if (std::string outdated = find_outdated(*daemon, client, name, watch);
                !outdated.empty())
                return outdated;
    }
    return {};
}

} // namespace ds::sim
