// Removes what dead nodes left.
#include "relay/etcd/session.h"

namespace ds::relay::etcd {

namespace {

constexpr Duration forever = std::chrono::hours(24);
constexpr int questions_max = 10'000; // of one sweep

} // namespace

// Every survivor is ready to do it, each after a time of its own; the first one does it. A node
// that is back keeps its entries: the removal holds only while it has no key.
Task<void> Session::clean() {
    for (;;) {
        if (!core_.view.has_remains()) {
            co_await wait(clean_timer_, forever);
            continue;
        }
        const auto until = Clock::now() + jittered(core_.config.cleanup_delay);
        while (Clock::now() < until) // further deaths cut the wait short, not the pause
            co_await wait(clean_timer_, std::chrono::ceil<Duration>(until - Clock::now()));
        for (const View::Remains &remains : core_.view.remains())
            co_await remove(remains);
        // The deletions come back through the watch.
        co_await probe();
    }
}

// What was left in a rack without a living node is watched by nobody. The first of the nodes looks
// for it in all racks, with one question for each node that has entries there.
Task<void> Session::sweep() {
    RangeRequest request = {
        .keys = core_.keys.entries_of_all_racks(), .limit = 1, .keys_only = true};
    for (int asked = 0; asked < questions_max && core_.is_first(); asked++) {
        const RangeReply reply =
            decode_range(co_await client_.call("/v3/kv/range", encode_range(request)));
        if (reply.items.empty()) co_return;
        const std::string &key = reply.items[0].key;
        request.keys.begin = key + '\0'; // the next possible key
        const auto entry = core_.keys.parse_entry(key);
        if (!entry) continue;
        View::Remains remains;
        remains.node = entry->node;
        remains.ranges.push_back(core_.keys.rack_entries_of(entry->rack, entry->node));
        request.keys.begin = remains.ranges[0].end;
        const bool is_alive = entry->node == core_.node || core_.view.nodes().contains(entry->node);
        if (!is_alive) co_await remove(std::move(remains));
    }
}

Task<void> Session::remove(View::Remains remains) {
    const Transaction transaction = etcd::clean(core_.keys, remains);
    const TransactionReply reply = co_await transact(transaction);
    if (reply.succeeded) core_.counters.cleanups++;
}

} // namespace ds::relay::etcd
