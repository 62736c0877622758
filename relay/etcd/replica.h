// The engine without connections and time: this node's wishes and entries, its view of the other
// nodes, and what the directory is told of both.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "relay/engine.h"
#include "relay/etcd/journal.h"
#include "relay/etcd/keys.h"
#include "relay/etcd/messages.h"
#include "relay/etcd/own_entries.h"
#include "relay/etcd/view.h"

namespace ds::relay::etcd {

// Everything that the store holds for this node, at one revision.
struct Listing {
    std::int64_t revision = 0;
    std::vector<KeyValue> own;    // this node's entries
    std::vector<KeyValue> others; // nodes and entries of other nodes
};

struct Replica {
    // Without `is_own_period_open` the restart period of this node's services is never open.
    Replica(const NodeAddress &node_, const Keys &keys_, const View::Limits &limits,
            std::function<bool()> is_own_period_open_)
        : node(node_), keys(keys_), own_part("/" + address_text(node) + "/"),
          is_own_period_open(std::move(is_own_period_open_)), view(keys, limits, journal) {}
    Replica(const Replica &) = delete;
    Replica &operator=(const Replica &) = delete;

    // Takes what the directory wants the others to know. As Engine::send().
    int send(const dsr_update_t &update);

    // The list was read: tells the directory, and what it left is offered to it.
    void deliver(const Listing &listing, std::int64_t own_create_revision);
    // A change of an entry of this node: what it means for the entry. The directory is not told.
    OwnEntries::Seen take_own(const WatchEvent &event);
    // A change of another node or of an entry of one.
    void take_other(const WatchEvent &event);
    // Own entries that nobody wished for, replayed or offered to the directory.
    void give_leftovers();
    // The outage has lasted: the directory is told.
    void report_outage();

    // Of the living nodes, by address.
    bool is_first() const { return view.nodes().empty() || node < view.nodes().begin()->first; }
    bool is_own_entry(const std::string &key) const;

    const NodeAddress node;
    const Keys keys;
    const std::string own_part; // of every own entry's key
    const std::function<bool()> is_own_period_open;
    Events *events = nullptr; // null before the start and after the end of the engine
    bool is_reported_connected = false;
    Journal journal;
    View view;
    OwnEntries own;
};

} // namespace ds::relay::etcd
