#include "sim/relay/store.h"

#include <algorithm>
#include <utility>

namespace ds::sim {

namespace {

bool is_in(const etcd::KeyRange &keys, const std::string &key) {
    return keys.end.empty() ? key == keys.begin : key >= keys.begin && key < keys.end;
}

std::uint64_t label_of(const std::string &key) {
    std::uint64_t hash = 14695981039346656037u;
    for (const char c : key)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
    return hash;
}

} // namespace

// ---- questions ----

const etcd::KeyValue *Store::find(const std::string &key) const {
    const auto found = items_.find(key);
    return found != items_.end() ? &found->second : nullptr;
}

std::vector<etcd::KeyValue> Store::range(const etcd::KeyRange &keys) const {
    std::vector<etcd::KeyValue> found;
    for (auto item = items_.lower_bound(keys.begin);
         item != items_.end() && is_in(keys, item->first); ++item)
        found.push_back(item->second);
    return found;
}

// ---- transactions ----

bool Store::holds(const etcd::Compare &compare) const {
    const etcd::KeyValue *item = find(compare.key);
    switch (compare.target) {
    case etcd::Compare::Target::create_revision:
        return (item != nullptr ? item->create_revision : 0) == compare.revision;
    case etcd::Compare::Target::mod_revision:
        return (item != nullptr ? item->mod_revision : 0) == compare.revision;
    case etcd::Compare::Target::value:
        return item != nullptr && item->value == compare.value;
    }
    return false;
}

etcd::TransactionReply Store::transact(const etcd::Transaction &transaction) {
    etcd::TransactionReply reply;
    reply.succeeded =
        std::ranges::all_of(transaction.compares, [&](const etcd::Compare &c) { return holds(c); });
    bool is_changed = false;
    for (const etcd::Operation &operation :
         reply.succeeded ? transaction.on_success : transaction.on_failure) {
        if (operation.kind == etcd::Operation::Kind::put)
            put(operation, revision_ + 1), is_changed = true;
        else if (operation.kind == etcd::Operation::Kind::remove)
            is_changed = remove(operation.keys, revision_ + 1) || is_changed;
    }
    revision_ += is_changed ? 1 : 0;
    reply.revision = revision_;
    return reply;
}

void Store::put(const etcd::Operation &operation, std::int64_t revision) {
    etcd::KeyValue &item = items_[operation.keys.begin];
    if (item.mod_revision == 0) {
        item.key = operation.keys.begin;
        item.create_revision = revision;
    }
    item.value = operation.value;
    item.lease = operation.lease;
    item.mod_revision = revision;
    tell({false, item});
}

bool Store::remove(const etcd::KeyRange &keys, std::int64_t revision) {
    bool is_changed = false;
    for (auto item = items_.lower_bound(keys.begin);
         item != items_.end() && is_in(keys, item->first); is_changed = true)
        item = remove(item, revision);
    return is_changed;
}

Store::Items::iterator Store::remove(Items::iterator item, std::int64_t revision) {
    etcd::WatchEvent event;
    event.is_deletion = true;
    event.item.key = item->first;
    event.item.mod_revision = revision;
    tell(std::move(event));
    return items_.erase(item);
}

// ---- leases ----

std::int64_t Store::grant_lease() {
    leases_[++last_lease_] = clock_.now + ttl;
    return last_lease_;
}

bool Store::keep_alive(std::int64_t lease) {
    const auto found = leases_.find(lease);
    if (found == leases_.end()) return false;
    found->second = clock_.now + ttl;
    return true;
}

void Store::tick() {
    for (auto next = leases_.begin(); next != leases_.end();) {
        const auto [lease, end] = *next;
        if (end > clock_.now) {
            ++next;
            continue;
        }
        trace_.add("store: lease is over", static_cast<std::uint64_t>(lease));
        next = leases_.erase(next);
        revision_++;
        for (auto item = items_.begin(); item != items_.end();)
            item = item->second.lease == lease ? remove(item, revision_) : std::next(item);
    }
}

void Store::renew_leases() {
    for (auto &[lease, end] : leases_)
        end = clock_.now + ttl;
}

void Store::wipe() {
    trace_.add("store: wiped");
    items_.clear();
    leases_.clear();
    followers_.clear();
    revision_ = 1;
}

// ---- followers ----

void Store::follow(Follower &follower, std::vector<etcd::KeyRange> ranges) {
    followers_.push_back({&follower, std::move(ranges)});
}

void Store::unfollow(const Follower &follower) {
    std::erase_if(followers_, [&](const Following &f) { return f.follower == &follower; });
}

// The way to each node begins here.
void Store::tell(etcd::WatchEvent event) {
    auto change = std::make_shared<Change>();
    change->event = std::move(event);
    const etcd::KeyValue &item = change->event.item;
    change->label = label_of(item.key);
    trace_.add("store: tells", change->label, static_cast<std::uint64_t>(item.mod_revision),
               item.value.size(), change->event.is_deletion);
    if (trace_.has_sink()) trace_.note("  " + item.key);
    for (const Following &f : followers_)
        if (std::ranges::any_of(f.ranges, [&](const auto &keys) { return is_in(keys, item.key); }))
            f.follower->on_change(change);
}

} // namespace ds::sim
