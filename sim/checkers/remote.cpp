#include <algorithm>

#include "host/records.h"
#include "sim/checkers/checkers.h"
#include "sim/checkers/text.h"
#include "sim/relay/addresses.h"
#include "sim/world/daemon.h"
#include "sim/world/names.h"

namespace ds::sim {

namespace {

// A daemon that has not heard of the others yet does not say before that all is settled.
constexpr Time unsettled_for = 25 * second;

// The relay is away for longer than what it told is kept.
bool has_given_up(const Daemon &daemon) {
    return !daemon.engine().is_reported_connected() && !host::is_restart_period_open();
}

} // namespace

std::string find_remote_gap(const Daemon &daemon, const Snapshot &snapshot, Time now) {
    if (daemon.platform().failed != 0) return {}; // there was no memory for what was told
    const std::string who =
        "node " + std::to_string(daemon.node()) + ", " + name_text(snapshot.name);
    if (!daemon.engine().has_listed() && !snapshot.is_reconciling &&
        now < daemon.started() + unsettled_for)
        return who + ": all is said to be settled before the relay has told anything";
    if (has_given_up(daemon)) return {};
    const auto is_before = [](const Instance &a, const Instance &b) {
        return a.identity() < b.identity();
    };
    std::vector<Instance> shown = snapshot.instances;
    std::ranges::sort(shown, is_before);
    const auto &told = daemon.engine().told();
    const std::string name = name_text(snapshot.name);
    for (auto at = told.lower_bound({name, {}, 0, 0, {}});
         at != told.end() && std::get<0>(at->first) == name; ++at) {
        const auto &[of_name, sender, pid, scope, text] = at->first;
        Instance wanted;
        wanted.node = node_of(sender);
        wanted.pid = pid;
        wanted.instance = number_in(text);
        wanted.scope = scope;
        if (!std::ranges::binary_search(shown, wanted, is_before))
            return who + ": lacks [" + text_of(wanted) + "], which the relay told";
    }
    return {};
}

} // namespace ds::sim
