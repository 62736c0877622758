#include "relay/etcd/session.h"

#include <random>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace ds::relay::etcd {

Session::Session(Core &core, const Endpoint &endpoint)
    : core_(core),
      client_(core.io, endpoint, core.tls, core.config.connect_deadline, core.config.call_deadline),
      self_{core.config.node, core.config.rack, core.keys.node(core.config.node), {}, 0},
      changed_(core.io), writable_(core.io), written_(core.io), watching_(core.io),
      pulse_timer_(core.io), audit_timer_(core.io), clean_timer_(core.io) {}

void Session::fail(const std::string &reason) {
    if (!failure_.empty()) return;
    failure_ = reason;
    client_.close();
    for (Signal *signal : {&changed_, &writable_, &written_, &watching_, &pulse_timer_,
                           &audit_timer_, &clean_timer_})
        signal->cancel();
    for (Signal *waiter : probe_waiters_)
        waiter->cancel();
}

void Session::spawn(Task<void> task) {
    running_++;
    asio::co_spawn(core_.io, std::move(task),
                   [self = shared_from_this()](std::exception_ptr error) {
                       self->running_--;
                       try {
                           if (error) std::rethrow_exception(error);
                       } catch (const std::exception &failure) {
                           self->fail(failure.what());
                       }
                       self->changed_.cancel();
                   });
}

// Returns early when the signal is given.
Task<void> Session::wait(Signal &signal, Duration most) {
    if (!failure_.empty()) throw Failure(failure_);
    signal.expires_after(most);
    co_await signal.async_wait(asio::as_tuple(asio::use_awaitable));
    if (!failure_.empty()) throw Failure(failure_);
}

Task<void> Session::follow(std::int64_t revision) {
    begin_watching(revision);
    spawn(pulse());
    spawn(write());
    spawn(audit());
    spawn(clean());
    while (running_ > 0) {
        changed_.expires_at(Clock::time_point::max());
        co_await changed_.async_wait(asio::as_tuple(asio::use_awaitable));
    }
    throw Failure(failure_);
}

Task<TransactionReply> Session::transact(const Transaction &transaction) {
    co_return decode_transaction(
        co_await client_.call("/v3/kv/txn", encode_transaction(transaction)));
}

Duration Session::jittered(Duration most) {
    static std::minstd_rand generator{std::random_device{}()};
    return Duration(
        std::uniform_int_distribution<Duration::rep>(most.count() / 2, most.count())(generator));
}

Task<void> Session::farewell(bool keep_published) {
    is_leaving_ = true;
    if (keep_published) {
        const auto give_up_at = Clock::now() + core_.config.call_deadline;
        while (!core_.own.is_settled() && Clock::now() < give_up_at)
            co_await wait(written_, core_.config.call_deadline);
        co_await keep_alive(); // the successor has the whole TTL
    } else {
        // What is still waiting need not be written, and what is under way is void from here on.
        const Transaction transaction = withdraw(core_.keys, self_);
        co_await transact(transaction);
        co_await client_.call("/v3/lease/revoke", encode_lease(core_.lease));
        core_.lease = 0;
    }
}

} // namespace ds::relay::etcd
