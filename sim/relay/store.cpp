#include "sim/relay/store.h"

#include <utility>

#include "platform/dsr.h"

namespace ds::sim {

namespace {

constexpr Time cleanup_delay = 2 * second;

bool sees(int node, int rack, const EntryKey &key) {
    return key.node != node && (key.rack < 0 || key.rack == rack);
}

} // namespace

EntryKey EntryKey::of(int node, int rack, const relay::Update &update) {
    EntryKey key = {node, update.scope == DSR_SCOPE_RACK ? rack : -1, update.service_id,
                    update.name};
    if (update.instance) key.service.append(1, ';').append(*update.instance);
    return key;
}

// ---- nodes ----

bool Store::claim(int node, int rack, std::uint64_t boot, std::uint64_t predecessor,
                  std::uint64_t session) {
    const auto found = nodes_.find(node);
    if (found != nodes_.end() && found->second.boot != boot && found->second.boot != predecessor)
        return false;
    revision_++;
    NodeKey &key = nodes_[node];
    if (found == nodes_.end()) key.created = revision_;
    key.boot = boot;
    key.session = session;
    key.rack = rack;
    key.written = revision_;
    key.lease_ends = clock_.now + ttl;
    died_.erase(node);
    trace_.add("store: claimed", static_cast<std::uint64_t>(node), boot, session);
    Change change;
    change.is_node = true;
    change.key.node = node;
    change.node_key = key;
    tell(std::move(change));
    return true;
}

bool Store::keep_alive(int node, std::uint64_t session) {
    const auto found = nodes_.find(node);
    if (found == nodes_.end() || found->second.session != session) return false;
    found->second.lease_ends = clock_.now + ttl;
    return true;
}

void Store::remove_node(int node) {
    nodes_.erase(node);
    revision_++;
    died_[node] = clock_.now;
    trace_.add("store: node gone", static_cast<std::uint64_t>(node));
    Change change;
    change.is_node = change.is_gone = true;
    change.key.node = node;
    tell(std::move(change));
}

void Store::withdraw(int node, std::uint64_t session) {
    const auto found = nodes_.find(node);
    if (found == nodes_.end() || found->second.session != session) return;
    remove_entries_of(node);
    remove_node(node);
    died_.erase(node);
}

void Store::tick() {
    std::vector<int> ended;
    for (const auto &[node, key] : nodes_)
        if (key.lease_ends <= clock_.now) ended.push_back(node);
    for (const int node : ended)
        remove_node(node);
    // A survivor removes what the dead leave.
    std::vector<int> left;
    for (const auto &[node, since] : died_)
        if (!nodes_.empty() && since + cleanup_delay <= clock_.now) left.push_back(node);
    for (const int node : left) {
        remove_entries_of(node);
        died_.erase(node);
    }
}

void Store::renew_leases() {
    for (auto &[node, key] : nodes_)
        key.lease_ends = clock_.now + ttl;
}

void Store::wipe() {
    trace_.add("store: wiped");
    nodes_.clear();
    entries_.clear();
    died_.clear();
    followers_.clear();
    revision_ = 0;
    epoch_++;
}

// ---- entries ----

Revision Store::commit(int node, std::uint64_t session, const std::vector<Write> &writes) {
    const auto key = nodes_.find(node);
    if (key == nodes_.end() || key->second.session != session) return 0;
    revision_++;
    for (const Write &write : writes) {
        if (write.update) {
            entries_[write.key] = {write.update, revision_};
        } else if (entries_.erase(write.key) == 0) {
            continue;
        }
        trace_.add("store: entry", static_cast<std::uint64_t>(node), write.key.service_id,
                   write.update != nullptr ? write.update->version : 0, write.update != nullptr);
        Change change;
        change.key = write.key;
        change.update = write.update;
        change.is_gone = write.update == nullptr;
        tell(std::move(change));
    }
    return revision_;
}

void Store::remove_entries_of(int node) {
    revision_++;
    for (auto next = entries_.begin(); next != entries_.end();) {
        const auto entry = next++;
        if (entry->first.node != node) continue;
        Change change;
        change.key = entry->first;
        change.is_gone = true;
        entries_.erase(entry);
        tell(std::move(change));
    }
}

// ---- followers ----

Store::Listing Store::list(int node, int rack, Follower &follower) {
    Listing listing;
    listing.revision = revision_;
    listing.epoch = epoch_;
    for (const auto &[other, key] : nodes_)
        if (other == node)
            listing.own_created = key.created;
        else
            listing.nodes[other] = key;
    for (const auto &[key, entry] : entries_)
        if (key.node == node || sees(node, rack, key)) listing.entries[key] = entry;
    followers_.push_back({&follower, node, rack});
    return listing;
}

void Store::unfollow(const Follower &follower) {
    std::erase_if(followers_, [&](const Following &f) { return f.follower == &follower; });
}

// The way to each node begins here; a node is not told of its own entries.
void Store::tell(Change change) {
    change.revision = revision_;
    const auto shared = std::make_shared<const Change>(std::move(change));
    for (const Following &f : followers_) {
        const bool is_for_it = shared->is_node || sees(f.node, f.rack, shared->key);
        if (is_for_it) f.follower->on_change(shared);
    }
}

} // namespace ds::sim
