// The store that the nodes share: keys and values in revisions, leases on which keys live, and
// transactions that are done as a whole or not at all.
//
// It tells each follower at once what changes; the way to the node takes its time elsewhere.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "relay/etcd/messages.h"
#include "sim/base/queue.h"
#include "sim/base/trace.h"

namespace ds::sim {

namespace etcd = relay::etcd;

// Shared by all who are told of it.
struct Change {
    etcd::WatchEvent event;
    std::uint64_t label = 0; // of the key
};
using ChangePtr = std::shared_ptr<const Change>;

class Follower {
  public:
    virtual void on_change(const ChangePtr &change) = 0;

  protected:
    ~Follower() = default;
};

class Store {
  public:
    static constexpr Time ttl = 10 * second;

    Store(const Clock &clock, Trace &trace) : clock_(clock), trace_(trace) {}

    std::int64_t revision() const { return revision_; }
    const etcd::KeyValue *find(const std::string &key) const; // null: not there
    std::vector<etcd::KeyValue> range(const etcd::KeyRange &keys) const;
    etcd::TransactionReply transact(const etcd::Transaction &transaction);

    // Each gives the lease its whole time; false: it is over.
    std::int64_t grant_lease();
    bool keep_alive(std::int64_t lease);

    // From here on it is told of changes in these ranges.
    void follow(Follower &follower, std::vector<etcd::KeyRange> ranges);
    void unfollow(const Follower &follower);

    // Ends leases whose time is over, and the keys with them.
    void tick();
    // After an outage of the store every lease has its whole time again.
    void renew_leases();
    // Everything is gone, another store stands in its place.
    void wipe();

  private:
    using Items = std::map<std::string, etcd::KeyValue>;
    struct Following {
        Follower *follower;
        std::vector<etcd::KeyRange> ranges;
    };

    bool holds(const etcd::Compare &compare) const;
    void put(const etcd::Operation &operation, std::int64_t revision);
    bool remove(const etcd::KeyRange &keys, std::int64_t revision);
    Items::iterator remove(Items::iterator item, std::int64_t revision);
    void tell(etcd::WatchEvent event);

    const Clock &clock_;
    Trace &trace_;
    std::int64_t revision_ = 1;
    Items items_;
    std::map<std::int64_t, Time> leases_; // their ends
    std::int64_t last_lease_ = 0;         // never given twice, also by different stores
    std::vector<Following> followers_;
};

} // namespace ds::sim
