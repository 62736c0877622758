#include "sim/relay/reports.h"

#include <utility>

#include "platform/dsr.h"

namespace ds::sim {

void Reports::connection_ended() {
    for (auto &[key, again] : told_)
        again.reset();
}

void Reports::connected() {
    told_.clear();
    events_->connected();
}

void Reports::received(const relay::NodeAddress &sender, const dsr_update_t &update) {
    if (sender == self_) return events_->received(sender, update); // left over; given once
    const Key key = {update.service_name, sender, update.pid, update.scope,
                     update.instance != nullptr ? update.instance : ""};
    if (update.operation == DSR_DELETE) {
        told_.erase(key);
        return events_->received(sender, update);
    }
    if (has_flaw(Flaw::engine_loses_update)) return;
    const Told older = std::exchange(told_[key], std::nullopt);
    events_->received(sender, update);
    const bool is_reordering = settings_.flaw == Flaw::engine_reorders;
    if (older && is_reordering) events_->received(sender, older->borrowed());
    if (is_reordering || random_.chance(settings_.duplicates_per_mille)) repeat(key, update);
}

void Reports::repeat(const Key &key, const dsr_update_t &update) {
    relay::Update &again = told_[key].emplace(relay::Update::copy_of(update));
    again.operation = DSR_MODIFY;
    if (settings_.flaw == Flaw::engine_reorders) return; // it will follow the next change
    later_([this, key] {
        const auto found = told_.find(key);
        if (found == told_.end() || !found->second) return;
        const Told once_more = std::exchange(found->second, std::nullopt);
        events_->received(std::get<relay::NodeAddress>(key), once_more->borrowed());
    });
}

void Reports::node_down(const relay::NodeAddress &node) {
    if (settings_.flaw == Flaw::engine_keeps_dead_nodes) return;
    std::erase_if(
        told_, [&](const auto &told) { return std::get<relay::NodeAddress>(told.first) == node; });
    events_->node_down(node);
}

} // namespace ds::sim
