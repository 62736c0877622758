#include "sim/checkers/checkers.h"
#include "sim/checkers/text.h"
#include "sim/world/daemon.h"
#include "sim/world/names.h"

namespace ds::sim {

std::string find_discontinuity(const Daemon &daemon, const Snapshot &snapshot) {
    std::vector<Instance> wanted, found;
    if (const auto of_name = daemon.published().find(snapshot.name);
        of_name != daemon.published().end())
        for (const Published &published : of_name->second)
            wanted.push_back(published.instance);
    for (const Instance &instance : snapshot.instances)
        if (instance.node == daemon.node()) found.push_back(instance);
    const std::string difference = difference_of(std::move(wanted), std::move(found));
    if (difference.empty()) return {};
    return "of its own services, a snapshot of " + name_text(snapshot.name) + " on node " +
           std::to_string(daemon.node()) + difference;
}

} // namespace ds::sim
