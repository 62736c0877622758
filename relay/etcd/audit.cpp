// Compares what is known with what the store holds, so that a change that never arrived is found.
#include "relay/etcd/session.h"

namespace ds::relay::etcd {

namespace {

constexpr int rounds = 4;

} // namespace

Task<void> Session::audit() {
    // The first one follows the list at once: a deletion that was compacted away between the list
    // and the watch is never told.
    if (streams_awaited_ > 0) co_await wait(watching_, core_.config.call_deadline);
    if (streams_awaited_ > 0) throw Failure("the watch does not begin");
    for (;;) {
        core_.counters.audits++;
        co_await look_for_missed();
        if (!failure_.empty()) throw Failure(failure_);
        core_.give_leftovers();
        wake_writer();
        co_await sweep();
        co_await wait(audit_timer_, core_.config.audit_interval);
    }
}

// What is on its way comes sooner or later, each range in a stream of its own, also behind the
// probe. What differs in the same manner for as long as an answer may take was missed.
Task<void> Session::look_for_missed() {
    Differences missed = co_await compare_with_store();
    for (int round = 0; round < rounds && !missed.empty(); round++) {
        if (round > 0) co_await wait(audit_timer_, core_.config.call_deadline / rounds);
        co_await probe();
        const Differences now = co_await compare_with_store();
        std::erase_if(missed, [&](const auto &difference) { return !now.contains(difference); });
    }
    if (missed.empty()) co_return;
    core_.counters.repairs++;
    throw Failure("the audit found a difference at " + missed.begin()->first);
}

bool Session::is_judged(const std::string &key) const {
    if (key == self_.key) return false;
    if (core_.is_own_entry(key)) return !core_.own.is_busy(key);
    return core_.view.has_place_for(key);
}

std::int64_t Session::known_revision(const std::string &key) const {
    return core_.is_own_entry(key) ? core_.own.revision_of(key) : core_.view.revision_of(key);
}

// The keys that are not as old here as in the store. What is newer here was written after the store
// was asked.
Task<Session::Differences> Session::compare_with_store() {
    const std::vector<KeyValue> items = co_await list_keys();
    Differences differences;
    std::set<std::string_view> stored;
    for (const KeyValue &item : items) {
        stored.insert(item.key);
        if (is_judged(item.key) && known_revision(item.key) < item.mod_revision)
            differences.insert({item.key, item.mod_revision});
    }
    const auto look_for = [&](const std::string &key, std::int64_t revision) {
        if (!stored.contains(key) && is_judged(key)) differences.insert({key, -revision});
    };
    core_.own.for_each_key(look_for);
    core_.view.for_each_key(look_for);
    co_return differences;
}

} // namespace ds::relay::etcd
