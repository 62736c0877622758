// Brings the wishes of the directory into the store.
#include "relay/etcd/session.h"

namespace ds::relay::etcd {

namespace {

constexpr int writes_under_way_max = 4;
constexpr Duration forever = std::chrono::hours(24);

} // namespace

// The waiter runs after the handler that is under way, so all wishes of one turn of the daemon's
// loop leave together.
void Session::wake_writer() {
    writable_.cancel();
}

Task<void> Session::write() {
    for (;;) {
        while (writes_under_way_ < writes_under_way_max) {
            OwnEntries::Batch batch = core_.own.next_batch(Clock::now());
            if (batch.writes.empty()) break;
            writes_under_way_++;
            spawn(write_batch(std::move(batch)));
        }
        co_await wait(writable_, forever);
    }
}

Task<void> Session::write_batch(OwnEntries::Batch batch) {
    const Transaction transaction = etcd::write(self_, batch);
    const TransactionReply reply = co_await transact(transaction);
    writes_under_way_--;
    if (!reply.succeeded) {
        core_.counters.fenced++;
        throw Failure("this node's key is no longer its own");
    }
    core_.counters.writes++;
    core_.counters.operations += batch.writes.size();
    core_.own.complete(batch, reply.revision);
    written_.cancel();
    wake_writer();
}

} // namespace ds::relay::etcd
