// Removes what dead nodes left.
#include "relay/etcd/session.h"

namespace ds::relay::etcd {

namespace {

constexpr Duration forever = std::chrono::hours(24);

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
        for (const View::Remains &remains : core_.view.remains()) {
            const Transaction transaction = etcd::clean(core_.keys, remains);
            const TransactionReply reply = co_await transact(transaction);
            if (reply.succeeded) core_.counters.cleanups++;
            core_.view.removed_remains(remains.node);
        }
        // The deletions come back through the watch.
        co_await probe();
    }
}

} // namespace ds::relay::etcd
