#include "relay/etcd/own_entries.h"

#include <algorithm>
#include <utility>

namespace ds::relay::etcd {

namespace {

constexpr std::size_t unechoed_max = 1024;

} // namespace

// ---- wishes ----

void OwnEntries::wish(const std::string &key, Value value) {
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

bool OwnEntries::is_fulfilled(const std::string &key, const Value &wish) const {
    const auto known = known_.find(key);
    if (!wish) return known == known_.end();
    return known != known_.end() && known->second.counts && known->second.value == *wish;
}

void OwnEntries::mark(const std::string &key) {
    if (is_dirty_.insert(key).second) dirty_.push_back(key);
}

// A wish for no entry is over once there is none.
void OwnEntries::mark_unless_fulfilled(const std::string &key) {
    const auto wish = wishes_.find(key);
    if (wish == wishes_.end()) return;
    if (!is_fulfilled(key, wish->second))
        mark(key);
    else if (!wish->second)
        wishes_.erase(wish);
}

// ---- the store ----

void OwnEntries::replace_known(const std::vector<KeyValue> &items, std::int64_t counts_from) {
    std::map<std::string, Known> before = std::exchange(known_, {});
    for (const KeyValue &item : items) {
        Known known = {item.value, item.mod_revision, item.mod_revision > counts_from};
        if (const auto old = before.find(item.key); old != before.end()) {
            known.was_replayed = old->second.was_replayed;
            known.was_offered = old->second.was_offered;
        }
        known_.emplace(item.key, std::move(known));
    }
    abandon_writes();
    std::vector<std::string> wished;
    for (const auto &[key, wish] : wishes_)
        wished.push_back(key);
    std::ranges::sort(wished); // no matter how the table is laid out
    for (const std::string &key : wished)
        mark_unless_fulfilled(key);
}

void OwnEntries::abandon_writes() {
    in_flight_.clear();
    removed_.clear();
    unechoed_.clear();
}

OwnEntries::Batch OwnEntries::next_batch(Clock::time_point now) {
    Batch batch;
    batch.sent = now;
    std::size_t bytes = 0;
    while (!dirty_.empty() && batch.writes.size() < batch_operations_max) {
        const std::string &key = dirty_.front();
        const auto wish = wishes_.find(key);
        // A key under way is marked again when its write is done.
        const bool is_due =
            wish != wishes_.end() && !in_flight_.contains(key) && !is_fulfilled(key, wish->second);
        if (is_due) {
            const std::size_t more = key.size() + (wish->second ? wish->second->size() : 0);
            if (bytes + more > batch_bytes_max && !batch.writes.empty()) break;
            bytes += more;
            in_flight_[key] = {wish->second, now};
            batch.writes.push_back({key, wish->second});
        }
        is_dirty_.erase(key);
        dirty_.pop_front();
    }
    return batch;
}

std::int64_t OwnEntries::newest_revision_of(const std::string &key) const {
    if (const auto removed = removed_.find(key); removed != removed_.end()) return removed->second;
    return revision_of(key);
}

void OwnEntries::set_known(const std::string &key, const Value &value, std::int64_t revision) {
    if (value) {
        Known &known = known_[key];
        known.value = *value;
        known.revision = revision;
        known.counts = true;
        removed_.erase(key);
    } else {
        known_.erase(key);
    }
}

void OwnEntries::complete(const Batch &batch, std::int64_t revision) {
    bool is_echoed = false;
    for (const Write &write : batch.writes) {
        const std::int64_t newest = newest_revision_of(write.key);
        is_echoed = is_echoed || newest >= revision;
        if (newest < revision) {
            set_known(write.key, write.value, revision);
            if (!write.value) removed_[write.key] = revision;
        }
        in_flight_.erase(write.key);
        mark_unless_fulfilled(write.key);
    }
    if (is_echoed || batch.writes.empty()) return;
    unechoed_[revision] = batch.sent;
    if (unechoed_.size() > unechoed_max) unechoed_.erase(unechoed_.begin());
}

OwnEntries::Seen OwnEntries::saw(const std::string &key, const Value &value,
                                 std::int64_t revision) {
    Seen seen;
    if (const auto sent = unechoed_.find(revision); sent != unechoed_.end()) {
        seen.sent = sent->second;
        unechoed_.erase(sent);
    }
    const std::int64_t newest = newest_revision_of(key);
    if (newest == revision && !value) removed_.erase(key); // nothing older can follow
    if (newest >= revision) return seen;

    const auto in_flight = in_flight_.find(key);
    const bool is_ours = in_flight != in_flight_.end() && in_flight->second.value == value;
    seen.is_foreign = !is_ours;
    if (is_ours) seen.sent = in_flight->second.sent;
    set_known(key, value, revision);
    if (is_ours && !value) removed_[key] = revision; // for the answer that is still to come
    mark_unless_fulfilled(key);
    return seen;
}

void OwnEntries::remove_void() {
    for (const auto &[key, known] : known_)
        if (!known.counts && !wishes_.contains(key)) wish(key, std::nullopt);
}

std::vector<KeyValue> OwnEntries::take_leftovers(bool is_own_period_open) {
    std::vector<KeyValue> leftovers;
    for (auto &[key, known] : known_) {
        const bool was_given = known.was_offered || (is_own_period_open && known.was_replayed);
        if (was_given || wishes_.contains(key)) continue;
        (is_own_period_open ? known.was_replayed : known.was_offered) = true;
        KeyValue item;
        item.key = key;
        item.value = known.value;
        item.mod_revision = known.revision;
        leftovers.push_back(std::move(item));
    }
    return leftovers;
}

std::int64_t OwnEntries::revision_of(const std::string &key) const {
    const auto known = known_.find(key);
    return known != known_.end() ? known->second.revision : 0;
}

void OwnEntries::for_each_key(
    const std::function<void(const std::string &, std::int64_t)> &visit) const {
    for (const auto &[key, known] : known_)
        visit(key, known.revision);
}

} // namespace ds::relay::etcd
