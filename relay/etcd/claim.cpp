// The epoch, the lease and the node key.
#include <cstdio>
#include <random>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "relay/etcd/session.h"

namespace ds::relay::etcd {

namespace {

// What a lease may outlive its time by in the store.
constexpr Duration lease_slack = std::chrono::seconds(2);

std::string random_id() {
    std::random_device random;
    std::string id;
    for (int i = 0; i < 4; i++) {
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08x", random());
        id += digits;
    }
    return id;
}

} // namespace

Task<void> Session::claim() {
    core_.state = State::connecting;
    co_await read_member();
    co_await settle_epoch();
    core_.state = State::claiming;
    // Not awaited in the condition itself: g++ 12 makes no working code of that.
    bool is_claimed = false;
    while (!is_claimed)
        is_claimed = co_await try_claim();
    core_.give_up_at.reset();
}

Task<void> Session::read_member() {
    const MemberReply member = decode_member(co_await client_.call("/v3/maintenance/status", "{}"));
    core_.member_version = member.version;
    if (member.leader.empty() || member.leader == "0")
        throw Failure(client_.endpoint().text + ": the member has no leader");
}

Task<void> Session::settle_epoch() {
    const std::string &key = core_.keys.epoch();
    const std::string fresh = random_id();
    Transaction transaction;
    transaction.compares = {{key, Compare::Target::create_revision, 0, {}}};
    transaction.on_success = {put_operation(key, fresh)};
    transaction.on_failure = {range_operation(key)};
    const TransactionReply reply = co_await transact(transaction);
    if (reply.succeeded) {
        core_.learn_epoch(fresh);
    } else {
        if (reply.ranges.size() != 1 || reply.ranges[0].items.size() != 1)
            throw Failure("the store's answer about its epoch is incomplete");
        const bool is_other = core_.learn_epoch(reply.ranges[0].items[0].value);
        if (!is_other && reply.revision < core_.revision)
            core_.journal.error("the store has gone back to an earlier revision");
    }
}

Task<void> Session::ensure_lease() {
    renewed_ = Clock::now();
    if (core_.lease != 0) {
        const LeaseReply reply = decode_keep_alive(
            co_await client_.call("/v3/lease/keepalive", encode_lease(core_.lease)));
        if (reply.ttl_s > 0) co_return;
        core_.counters.leases_lost++;
        core_.lease = 0;
    }
    const auto ttl_s = std::chrono::ceil<std::chrono::seconds>(core_.config.ttl).count();
    const LeaseReply reply =
        decode_lease(co_await client_.call("/v3/lease/grant", encode_lease_grant(ttl_s)));
    if (reply.lease == 0 || reply.ttl_s <= 0) throw Failure("the store granted no lease");
    core_.lease = reply.lease;
    core_.granted_ttl = std::chrono::seconds(reply.ttl_s);
}

// True when the key is this connection's; false when it was another's and has changed since.
Task<bool> Session::try_claim() {
    const RangeRequest question = {.keys = {self_.key, {}}};
    const RangeReply found =
        decode_range(co_await client_.call("/v3/kv/range", encode_range(question)));
    const bool is_free = found.items.empty();
    NodeInfo holder;
    if (!is_free) {
        const KeyValue &item = found.items[0];
        const bool is_readable = decode_node(item.value, holder).empty();
        const bool is_successor =
            is_readable && (holder.boot_id == core_.config.boot_id ||
                            holder.boot_id == core_.config.predecessor_boot_id);
        if (!is_successor) {
            co_await wait_for_free_key(item, found.revision);
            co_return false;
        }
    }
    co_await ensure_lease();
    core_.self.session++; // writes of earlier connections that are still on their way are void
    self_.value = encode_node(core_.self);
    self_.lease = core_.lease;
    const Transaction transaction =
        is_free ? etcd::claim(self_) : take_over(core_.keys, self_, found.items[0], holder.rack);
    const TransactionReply reply = co_await transact(transaction);
    if (!reply.succeeded) co_return false;
    own_create_revision_ = is_free ? reply.revision : found.items[0].create_revision;
    co_return true;
}

Task<Duration> Session::remaining_ttl(std::int64_t lease) {
    if (lease == 0) co_return Duration(0);
    const LeaseReply reply =
        decode_lease(co_await client_.call("/v3/lease/timetolive", encode_lease(lease)));
    co_return std::chrono::seconds(std::max<std::int64_t>(reply.granted_ttl_s, 0));
}

// Until the key changes, or longer than a daemon that has died could hold it.
Task<void> Session::wait_for_free_key(const KeyValue &item, std::int64_t revision) {
    if (!core_.give_up_at) {
        const Duration remaining = co_await remaining_ttl(item.lease);
        core_.give_up_at = Clock::now() + remaining + lease_slack;
    }
    const KeyRange range = {self_.key, {}};
    const auto stream = co_await client_.stream("/v3/watch", encode_watch(range, revision + 1));
    const auto is_over = std::make_shared<bool>(false); // outlives the timer's handler
    asio::steady_timer timer(core_.io, *core_.give_up_at);
    timer.async_wait([weak = std::weak_ptr(stream), is_over](boost::system::error_code stopped) {
        const auto open = stopped ? nullptr : weak.lock();
        if (open == nullptr) return;
        *is_over = true;
        open->close();
    });
    LineReader lines(stream);
    try {
        for (;;) {
            const WatchReply reply = decode_watch(co_await lines.next_line());
            if (reply.is_cancelled || !reply.events.empty()) co_return;
        }
    } catch (const Failure &) {
        if (!*is_over) throw;
    }
    NodeInfo holder;
    decode_node(item.value, holder);
    throw AddressTaken("the node address " + address_text(core_.config.node) +
                       " is used by another daemon, on host '" + holder.host_name +
                       "' with boot id '" + holder.boot_id +
                       "'; give one of them another address, or remove the key " + self_.key +
                       " if that daemon is gone");
}

} // namespace ds::relay::etcd
