#include "sim/relay/own_entries.h"

namespace ds::sim {

namespace {

constexpr std::size_t batch_max = 128;

} // namespace

void OwnEntries::wish(const EntryKey &key, UpdatePtr value) {
    wishes_[key] = std::move(value);
    mark(key);
}

void OwnEntries::forget_wishes() {
    wishes_.clear();
    dirty_.clear();
    is_dirty_.clear();
    for (auto &[key, known] : known_)
        known.was_replayed = known.was_offered = false;
}

bool OwnEntries::is_fulfilled(const EntryKey &key, const UpdatePtr &wish) const {
    const auto known = known_.find(key);
    if (!wish) return known == known_.end();
    return known != known_.end() && known->second.counts && *known->second.value == *wish;
}

void OwnEntries::mark(const EntryKey &key) {
    if (is_dirty_.insert(key).second) dirty_.push_back(key);
}

void OwnEntries::mark_unless_fulfilled(const EntryKey &key) {
    const auto wish = wishes_.find(key);
    if (wish == wishes_.end()) return;
    if (!is_fulfilled(key, wish->second))
        mark(key);
    else if (!wish->second)
        wishes_.erase(wish);
}

void OwnEntries::replace_known(const Store::Listing &listing, int self) {
    std::map<EntryKey, Known> before = std::exchange(known_, {});
    for (const auto &[key, entry] : listing.entries) {
        if (key.node != self) continue;
        Known known = {entry.update, entry.written, entry.written > listing.own_created};
        if (const auto old = before.find(key); old != before.end()) {
            known.was_replayed = old->second.was_replayed;
            known.was_offered = old->second.was_offered;
        }
        known_.emplace(key, std::move(known));
    }
    abandon_writes();
    std::vector<EntryKey> wished;
    for (const auto &[key, wish] : wishes_)
        wished.push_back(key);
    for (const EntryKey &key : wished)
        mark_unless_fulfilled(key);
}

std::vector<Store::Write> OwnEntries::next_batch() {
    std::vector<Store::Write> batch;
    while (!dirty_.empty() && batch.size() < batch_max) {
        const EntryKey key = std::move(dirty_.front());
        dirty_.pop_front();
        is_dirty_.erase(key);
        const auto wish = wishes_.find(key);
        // A key under way is marked again when its write is done.
        const bool is_due =
            wish != wishes_.end() && !in_flight_.contains(key) && !is_fulfilled(key, wish->second);
        if (!is_due) continue;
        in_flight_[key] = wish->second;
        batch.push_back({key, wish->second});
    }
    return batch;
}

void OwnEntries::complete(const std::vector<Store::Write> &writes, Revision revision) {
    for (const Store::Write &write : writes) {
        if (in_flight_.erase(write.key) == 0) continue;
        if (write.update)
            known_[write.key] = {write.update, revision};
        else
            known_.erase(write.key);
        mark_unless_fulfilled(write.key);
    }
}

std::vector<UpdatePtr> OwnEntries::take_leftovers(bool is_own_period_open) {
    std::vector<UpdatePtr> leftovers;
    for (auto &[key, known] : known_) {
        const bool was_given = known.was_offered || (is_own_period_open && known.was_replayed);
        if (was_given || wishes_.contains(key)) continue;
        (is_own_period_open ? known.was_replayed : known.was_offered) = true;
        leftovers.push_back(known.value);
    }
    return leftovers;
}

} // namespace ds::sim
