#include "sim/relay/reports.h"

#include <utility>

#include "platform/dsr.h"

namespace ds::sim {

void Reports::received(const relay::NodeAddress &sender, const dsr_update_t &update) {
    if (sender == self_) return events_->received(sender, update); // left over; given once
    const bool is_deletion = update.operation == DSR_DELETE;
    if (!is_deletion && has_flaw(Flaw::engine_loses_update)) return;
    const Key key = {sender, update.service_id, update.service_name,
                     update.instance != nullptr ? update.instance : ""};
    const auto older = repeats_.extract(key);
    events_->received(sender, update);
    if (older && !is_deletion && settings_.flaw == Flaw::engine_reorders)
        events_->received(sender, older.mapped().borrowed());
    const bool is_repeated =
        settings_.flaw == Flaw::engine_reorders || random_.chance(settings_.duplicates_per_mille);
    if (!is_deletion && is_repeated) repeat(key, update);
}

void Reports::repeat(const Key &key, const dsr_update_t &update) {
    relay::Update &again = repeats_[key] = relay::Update::copy_of(update);
    again.operation = DSR_MODIFY;
    if (settings_.flaw == Flaw::engine_reorders) return; // it will follow the next change
    later_([this, key] {
        const auto found = repeats_.extract(key);
        if (found) events_->received(std::get<0>(key), found.mapped().borrowed());
    });
}

void Reports::node_down(const relay::NodeAddress &node) {
    if (settings_.flaw == Flaw::engine_keeps_dead_nodes) return;
    std::erase_if(repeats_, [&](const auto &repeat) { return std::get<0>(repeat.first) == node; });
    events_->node_down(node);
}

} // namespace ds::sim
