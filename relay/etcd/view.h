// What the store holds of the other nodes, and what of it the directory has been told.
//
// An entry counts only while the node key lives under which it was written: its node has a key that
// was made before the entry was last written. So a dead node's leftovers never come back to life
// with the node's next daemon, and events that arrive out of order between the watched ranges end
// in the same state.
//
// Every change is turned into the calls of Events that bring the directory from what it was told to
// what counts now. Entries that are not fit are kept without being told, for the audit.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "relay/engine.h"
#include "relay/etcd/journal.h"
#include "relay/etcd/keys.h"
#include "relay/etcd/messages.h"
#include "relay/etcd/records.h"
#include "relay/update.h"

namespace ds::relay::etcd {

class View {
  public:
    struct Limits {
        std::size_t name_bytes_max;
        std::size_t entries_max;
    };
    struct Node {
        std::optional<NodeInfo> info; // nothing: it cannot be read, and none of its entries counts
        std::int64_t create_revision = 0; // entries written later than this count
        std::int64_t mod_revision = 0;
        std::size_t told = 0; // entries that the directory was told
    };

    View(const Keys &keys, const Limits &limits, Journal &journal)
        : keys_(keys), limits_(limits), journal_(journal) {}

    using Told = std::map<std::string, std::shared_ptr<const Update>>; // by key
    // Forgets everything without telling: the directory begins anew. Returns what it was told.
    Told clear();
    // A replay brings the directory the identity of a service that it knows, not what has changed
    // of it. Says that once more, behind the list, of what is not as it was told before.
    void tell_changes_since(const Told &before, Events &events);

    // Takes a whole list in place of what is known, and tells the difference.
    void replace(const std::vector<KeyValue> &items, Events &events);

    // One change of the store. Keys that are neither a node nor an entry are refused.
    void put(const KeyValue &item, Events &events);
    void remove(const std::string &key, std::int64_t revision, Events &events);

    const std::map<NodeAddress, Node> &nodes() const { return nodes_; }
    std::size_t entry_count() const { return entry_count_; }

    // Nodes without a key whose entries are still in the store, with the ranges of these.
    struct Remains {
        NodeAddress node;
        std::vector<KeyRange> ranges;
    };
    std::vector<Remains> remains() const;
    bool has_remains() const;

    // The revision at which the key was last written, as far as known; 0 when it is not there.
    std::int64_t revision_of(const std::string &key) const;
    // False for keys that are refused unread: the view cannot know them.
    bool has_place_for(const std::string &key) const;
    void for_each_key(const std::function<void(const std::string &, std::int64_t)> &visit) const;

  private:
    struct Entry {
        EntryKey parts;
        std::int64_t mod_revision = 0;
        // Shared, as the directory mostly knows what the store holds.
        std::shared_ptr<const Update> update; // null: refused
        std::shared_ptr<const Update> told;   // what the directory knows; null: nothing
        std::size_t told_bytes = 0;
        bool is_waiting = false; // its name is full
    };
    using Entries = std::map<std::string, Entry>; // by key
    struct Name {
        std::size_t bytes = 0;
        std::set<std::pair<NodeAddress, std::string>> waiting; // node and key
    };

    bool learn_node(const NodeAddress &address, const KeyValue &item);
    void put_node(const NodeAddress &address, const KeyValue &item, Events &events);
    void put_entry(const EntryKey &parts, const KeyValue &item, Events &events);
    void remove_node(const NodeAddress &address, Events &events);
    void remove_entry(const NodeAddress &address, Entries::iterator entry, Events &events);
    void drop_missing(const std::vector<KeyValue> &items, Events &events);
    void settle(const NodeAddress &address, const std::string &key, Entry &entry, Events &events);
    void tell(const NodeAddress &address, const std::string &key, Entry &entry, Events &events);
    void untell(const NodeAddress &address, Entry &entry, Events &events);
    void forget(const NodeAddress &address, const std::string &key, Entry &entry);
    bool take_room(const NodeAddress &address, const std::string &key, Entry &entry,
                   std::size_t bytes);
    void fill_room(Events &events);
    bool counts(const NodeAddress &address, const Entry &entry) const;

    const Keys &keys_;
    Limits limits_;
    Journal &journal_;
    std::map<NodeAddress, Node> nodes_;
    std::map<NodeAddress, Entries> entries_;
    std::size_t entry_count_ = 0;
    std::unordered_map<std::string, Name> names_;
    std::set<std::string> names_with_room_; // full names from which something went
};

} // namespace ds::relay::etcd
