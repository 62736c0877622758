// The store that the nodes share: who is alive, what each node has published, in revisions.
//
// A node's key lives as long as its daemon renews the lease on it. Entries stay until they are
// removed; they count only when they were written under the node key that stands. The store tells
// each follower what changes, at once; the way to the node takes its time elsewhere.
#pragma once
#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "relay/update.h"
#include "sim/base/queue.h"
#include "sim/base/settings.h"
#include "sim/base/trace.h"

namespace ds::sim {

using Revision = std::int64_t;
using UpdatePtr = std::shared_ptr<const relay::Update>; // null: no entry

struct EntryKey {
    int node = 0;
    int rack = -1; // of its node, for scope rack; -1: every rack
    std::uint32_t service_id = 0;
    std::string service; // name, and ";" with the instance if there is one

    auto operator<=>(const EntryKey &) const = default;

    static EntryKey of(int node, int rack, const relay::Update &update);
};

struct NodeKey {
    std::uint64_t boot = 0;    // the daemon's life
    std::uint64_t session = 0; // the connection that wrote it: writes of others are void
    int rack = 0;
    Revision created = 0;
    Revision written = 0;
    Time lease_ends = 0;
};

struct Change {
    bool is_node = false;
    EntryKey key;     // of a node's key: only the node
    NodeKey node_key; // of a node that comes
    UpdatePtr update; // null: the entry goes
    bool is_gone = false;
    Revision revision = 0;
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
    struct Entry {
        UpdatePtr update;
        Revision written = 0;
    };
    struct Write {
        EntryKey key;
        UpdatePtr update; // null: remove
    };
    struct Listing {
        Revision revision = 0;
        Revision own_created = 0;
        std::uint64_t epoch = 0;
        std::map<int, NodeKey> nodes; // the others
        std::map<EntryKey, Entry> entries;
    };

    static constexpr Time ttl = 10 * second;

    Store(const Clock &clock, Trace &trace) : clock_(clock), trace_(trace) {}

    // False while another daemon's key stands.
    bool claim(int node, int rack, std::uint64_t boot, std::uint64_t predecessor,
               std::uint64_t session);
    // What a node of that rack may see; from here on the follower is told of changes.
    Listing list(int node, int rack, Follower &follower);
    void unfollow(const Follower &follower);
    // The revision; 0 when the node key is not that session's.
    Revision commit(int node, std::uint64_t session, const std::vector<Write> &writes);
    bool keep_alive(int node, std::uint64_t session);
    // A planned end: the node's key and entries go.
    void withdraw(int node, std::uint64_t session);

    // Leases that have ended, leftovers of dead nodes.
    void tick();
    // After an outage of the store every lease has its whole time again.
    void renew_leases();
    // Everything is gone, another store stands in its place.
    void wipe();

    const std::map<EntryKey, Entry> &entries() const { return entries_; }
    const std::map<int, NodeKey> &nodes() const { return nodes_; }

  private:
    void tell(Change change);
    void remove_node(int node);
    void remove_entries_of(int node);

    const Clock &clock_;
    Trace &trace_;
    Revision revision_ = 0;
    std::uint64_t epoch_ = 1;
    std::map<int, NodeKey> nodes_;
    std::map<EntryKey, Entry> entries_;
    std::map<int, Time> died_; // without a key since
    struct Following {
        Follower *follower;
        int node;
        int rack;
    };
    std::vector<Following> followers_;
};

} // namespace ds::sim
