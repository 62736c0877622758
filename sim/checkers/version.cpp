#include "sim/checkers/checkers.h"

namespace ds::sim {

std::string find_regress(const Client &client, const Snapshot &snapshot,
                         const Client::Watch &watch) {
    if (!watch.is_told || snapshot.version >= watch.version) return {};
    return "client " + std::to_string(client.index()) + " was told version " +
           std::to_string(snapshot.version) + " after " + std::to_string(watch.version);
}

} // namespace ds::sim
