#include "sim/relay/view.h"

#include <utility>

#include "platform/dsr.h"

namespace ds::sim {

relay::NodeAddress address_of(int node) {
    return {0x02, 0, 0, 0, static_cast<std::uint8_t>(node >> 8), static_cast<std::uint8_t>(node)};
}

int node_of(const relay::NodeAddress &address) {
    return address[4] << 8 | address[5];
}

View::Told View::clear() {
    Told told;
    for (auto &[key, entry] : entries_)
        if (entry.told) told[key] = std::move(entry.told);
    nodes_.clear();
    entries_.clear();
    return told;
}

void View::tell_changes_since(const Told &before, relay::Events &events) {
    for (const auto &[key, entry] : entries_) {
        const auto known = before.find(key);
        if (known == before.end() || !entry.told) continue;
        const relay::Update &was = *known->second, &is = *entry.told;
        const bool is_same = was.pid == is.pid && was.endpoint == is.endpoint;
        if (is_same && was != is) deliver(DSR_MODIFY, key, entry.told, events);
    }
}

void View::replace(const Store::Listing &listing, int self, relay::Events &events) {
    for (auto next = nodes_.begin(); next != nodes_.end();) {
        const int node = (next++)->first;
        if (!listing.nodes.contains(node)) remove_node(node, events);
    }
    for (auto entry = entries_.begin(); entry != entries_.end();)
        entry =
            listing.entries.contains(entry->first) ? std::next(entry) : remove_entry(entry, events);
    nodes_ = listing.nodes;
    for (const auto &[key, listed] : listing.entries) {
        if (key.node == self) continue;
        Entry &entry = entries_[key];
        entry.update = listed.update;
        entry.written = listed.written;
        settle(key, entry, events);
    }
}

void View::take(const Change &change, relay::Events &events) {
    told_last_ = nullptr;
    if (change.is_node)
        return change.is_gone ? remove_node(change.key.node, events) : put_node(change, events);
    const auto found = entries_.find(change.key);
    if (change.is_gone) {
        if (found != entries_.end()) remove_entry(found, events);
        return;
    }
    Entry &entry = entries_[change.key];
    entry.update = change.update;
    entry.written = change.revision;
    settle(change.key, entry, events);
}

void View::put_node(const Change &change, relay::Events &events) {
    const int node = change.key.node;
    nodes_[node] = change.node_key;
    for (auto entry = first_of(node); entry != entries_.end() && entry->first.node == node; ++entry)
        settle(entry->first, entry->second, events);
}

// The directory drops the node's services by itself.
void View::remove_node(int node, relay::Events &events) {
    nodes_.erase(node);
    for (auto entry = first_of(node); entry != entries_.end() && entry->first.node == node; ++entry)
        entry->second.told = nullptr;
    if (has_flaw && has_flaw(Flaw::engine_keeps_dead_nodes)) return;
    events.node_down(address_of(node));
}

View::Entries::iterator View::remove_entry(Entries::iterator entry, relay::Events &events) {
    untell(entry->first, entry->second, events);
    return entries_.erase(entry);
}

bool View::counts(const EntryKey &key, const Entry &entry) const {
    const auto node = nodes_.find(key.node);
    return node != nodes_.end() && entry.written > node->second.created;
}

void View::settle(const EntryKey &key, Entry &entry, relay::Events &events) {
    if (!counts(key, entry)) return untell(key, entry, events);
    if (entry.told == entry.update || (entry.told && *entry.told == *entry.update)) return;
    if (has_flaw && has_flaw(Flaw::engine_loses_update)) return;
    const UpdatePtr before = entry.told;
    // The directory finds a service of another node by its process id among other things.
    if (before && before->pid != entry.update->pid) untell(key, entry, events);
    const bool is_change = entry.told != nullptr;
    entry.told = told_last_ = entry.update;
    deliver(is_change ? DSR_MODIFY : DSR_ADD, key, entry.told, events);
    if (before && has_flaw && has_flaw(Flaw::engine_reorders))
        deliver(DSR_MODIFY, key, before, events);
}

void View::untell(const EntryKey &key, Entry &entry, relay::Events &events) {
    if (entry.told) deliver(DSR_DELETE, key, std::exchange(entry.told, nullptr), events);
}

void View::tell_again(const EntryKey &key, const UpdatePtr &update, relay::Events &events) {
    const auto found = entries_.find(key);
    if (found == entries_.end() || found->second.told != update) return;
    deliver(DSR_MODIFY, key, update, events);
}

void View::deliver(std::uint32_t operation, const EntryKey &key, const UpdatePtr &update,
                   relay::Events &events) {
    dsr_update_t borrowed = update->borrowed();
    borrowed.operation = operation;
    events.received(address_of(key.node), borrowed);
}

} // namespace ds::sim
