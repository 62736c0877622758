// What one node's engine knows of the others, and what of it the directory was told. Every change
// becomes the calls of Events that bring the directory from what it was told to what counts now, so
// it does not matter in which order changes of different services and of nodes arrive.
#pragma once
#include <functional>
#include <map>

#include "relay/engine.h"
#include "sim/relay/store.h"

namespace ds::sim {

relay::NodeAddress address_of(int node);
int node_of(const relay::NodeAddress &address);

class View {
  public:
    using Told = std::map<EntryKey, UpdatePtr>;
    Told clear(); // returns what the directory was told
    // What a replay cannot bring: changes of services that the directory knows.
    void tell_changes_since(const Told &before, relay::Events &events);
    void replace(const Store::Listing &listing, int self, relay::Events &events);
    void take(const Change &change, relay::Events &events);

    // Told once more, if it is still what was told last.
    void tell_again(const EntryKey &key, const UpdatePtr &update, relay::Events &events);

    // The entry that was told when the last call told one; null: none.
    UpdatePtr told_last() const { return told_last_; }

    // One change in many goes wrong, for the proof that the checkers find it.
    std::function<bool(Flaw)> has_flaw;

  private:
    struct Entry {
        UpdatePtr update;
        UpdatePtr told;
        Revision written = 0;
    };
    using Entries = std::map<EntryKey, Entry>;

    bool counts(const EntryKey &key, const Entry &entry) const;
    void settle(const EntryKey &key, Entry &entry, relay::Events &events);
    void untell(const EntryKey &key, Entry &entry, relay::Events &events);
    void put_node(const Change &change, relay::Events &events);
    void remove_node(int node, relay::Events &events);
    Entries::iterator remove_entry(Entries::iterator entry, relay::Events &events);
    void deliver(std::uint32_t operation, const EntryKey &key, const UpdatePtr &update,
                 relay::Events &events);
    Entries::iterator first_of(int node) { return entries_.lower_bound({node, -2, 0, {}}); }

    std::map<int, NodeKey> nodes_;
    Entries entries_;
    UpdatePtr told_last_;
};

} // namespace ds::sim
