// Signs of life: this node's for the others, the store's for this node.
#include "relay/etcd/session.h"

namespace ds::relay::etcd {

Task<void> Session::pulse() {
    for (;;) {
        co_await wait(pulse_timer_, core_.granted_ttl / 3);
        co_await keep_alive();
        co_await probe();
    }
}

Task<void> Session::keep_alive() {
    const LeaseReply reply =
        decode_keep_alive(co_await client_.call("/v3/lease/keepalive", encode_lease(core_.lease)));
    renewed_ = Clock::now();
    if (reply.ttl_s > 0) co_return;
    core_.lease = 0;
    core_.counters.leases_lost++;
    throw Failure("the lease has expired");
}

// For what may take longer than the lease lasts, while there is no pulse yet. With one it is never
// due.
Task<void> Session::keep_alive_if_due() {
    if (Clock::now() - renewed_ > core_.granted_ttl / 2) co_await keep_alive();
}

// Writes the probe key and waits until the watch shows it: a store that is frozen, and a stream
// that is dead without having ended, both stay silent.
Task<void> Session::probe() {
    const auto sent = Clock::now();
    const std::uint64_t number = ++probes_sent_;
    const Transaction transaction =
        fenced(self_, {put_operation(core_.keys.probe(core_.config.node), std::to_string(number))});
    const TransactionReply reply = co_await transact(transaction);
    if (!reply.succeeded) {
        core_.counters.fenced++;
        throw Failure("this node's key is no longer its own");
    }
    if (probes_seen_ < number) {
        Signal seen(core_.io);
        probe_waiters_.push_back(&seen);
        try {
            co_await wait(seen, core_.config.call_deadline);
        } catch (...) {
            std::erase(probe_waiters_, &seen);
            throw;
        }
        std::erase(probe_waiters_, &seen);
    }
    if (probes_seen_ < number) throw Failure("the watch is silent");
    core_.journal.echo(Clock::now() - sent);
}

} // namespace ds::relay::etcd
