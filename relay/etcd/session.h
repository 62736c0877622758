// One connection to the store, from the claim of the node key to the first thing that fails.
//
//   claim -> list -> (the engine delivers) -> follow: watch, pulse, write, audit, clean
//
// All that runs at the same time in follow() ends together: the first failure closes the client
// and wakes every waiter, and follow() throws it when the last one has ended.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "relay/etcd/core.h"
#include "relay/etcd/http.h"
#include "relay/etcd/messages.h"
#include "relay/etcd/transactions.h"

namespace ds::relay::etcd {

// This node's address belongs to another daemon; trying again is of no use.
class AddressTaken : public Failure {
  public:
    using Failure::Failure;
};

class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(Core &core, const Endpoint &endpoint);
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Makes the node key this daemon's, or throws. May wait as long as another daemon's lease.
    Task<void> claim();
    Task<Listing> list();
    std::int64_t own_create_revision() const { return own_create_revision_; }

    // Keeps the connection going from that revision on; ends by throwing the reason.
    Task<void> follow(std::int64_t revision);
    // There is something to write. Takes effect after the turn that is under way.
    void wake_writer();

    // Withdraws this node from the store, or waits until all is written and leaves its entries and
    // its key to the successor. Throws when the store does not take part.
    Task<void> farewell(bool keep_published);

    void fail(const std::string &reason);

  private:
    using Clock = std::chrono::steady_clock;
    // Something to wait for: cancelled to wake, expired to give up.
    using Signal = asio::steady_timer;

    // ---- session.cpp ----
    void spawn(Task<void> task);
    Task<void> wait(Signal &signal, Duration most);
    Task<TransactionReply> transact(const Transaction &transaction);
    Duration jittered(Duration most);

    // ---- claim.cpp ----
    Task<void> read_member();
    Task<void> settle_epoch();
    Task<void> ensure_lease();
    Task<bool> try_claim();
    Task<void> wait_for_free_key(const KeyValue &item, std::int64_t revision);
    Task<Duration> remaining_ttl(std::int64_t lease);

    // ---- listing.cpp ----
    Task<void> read_range(KeyRange range, bool keys_only, std::int64_t &revision,
                          std::vector<KeyValue> &out);
    Task<std::vector<KeyValue>> list_keys();

    // ---- watch.cpp ----
    void begin_watching(std::int64_t revision);
    Task<void> watch(KeyRange range, std::int64_t revision);
    void take(const WatchEvent &event);
    void take_own_node(const WatchEvent &event);
    void take_own_entry(const WatchEvent &event);

    // ---- pulse.cpp ----
    Task<void> pulse();
    Task<void> keep_alive();
    Task<void> keep_alive_if_due();
    Task<void> probe();

    // ---- write.cpp ----
    Task<void> write();
    Task<void> write_batch(OwnEntries::Batch batch);

    // ---- audit.cpp ----
    Task<void> audit();
    Task<void> look_for_missed();
    using Differences = std::set<std::pair<std::string, std::int64_t>>;
    Task<Differences> compare_with_store();
    std::int64_t known_revision(const std::string &key) const;
    bool is_judged(const std::string &key) const;

    // ---- clean.cpp ----
    Task<void> clean();
    Task<void> sweep();
    Task<void> remove(View::Remains remains);

    Core &core_;
    Client client_;
    Membership self_;
    std::int64_t own_create_revision_ = 0;
    Clock::time_point renewed_; // the lease, as far as known

    std::string failure_; // empty: none
    std::exception_ptr reason_;
    int running_ = 0;
    Signal changed_;  // a task has ended
    Signal writable_; // there may be something to write
    Signal written_;  // a batch is done
    Signal watching_; // all streams of the watch have begun
    Signal pulse_timer_, audit_timer_, clean_timer_;
    std::size_t streams_awaited_ = 0; // of the watch, that have not begun
    bool is_leaving_ = false;
    int writes_under_way_ = 0;
    std::uint64_t probes_sent_ = 0;
    std::uint64_t probes_seen_ = 0;
    std::vector<Signal *> probe_waiters_;
};

} // namespace ds::relay::etcd
