// A node's own entries: what the directory wants the store to hold, and what it is known to hold.
// One key is never in two writes at once; states that were overtaken are skipped. What nobody
// wished for was left by an earlier life and is given back to the directory.
#pragma once
#include <deque>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "sim/relay/store.h"

namespace ds::sim {

class OwnEntries {
  public:
    void wish(const EntryKey &key, UpdatePtr value);
    void forget_wishes();
    // Entries that were written at `counts_from` or before belong to an earlier node key.
    void replace_known(const Store::Listing &listing, int self);

    std::vector<Store::Write> next_batch();
    void complete(const std::vector<Store::Write> &writes, Revision revision);
    void abandon_writes() { in_flight_.clear(); }

    // Each once, and once more outside the own period if the first time was within it.
    std::vector<UpdatePtr> take_leftovers(bool is_own_period_open);

    bool is_settled() const { return dirty_.empty() && in_flight_.empty(); }

  private:
    struct Known {
        UpdatePtr value;
        Revision written = 0;
        bool counts = true;
        bool was_replayed = false;
        bool was_offered = false;
    };

    bool is_fulfilled(const EntryKey &key, const UpdatePtr &wish) const;
    void mark(const EntryKey &key);
    void mark_unless_fulfilled(const EntryKey &key);

    std::map<EntryKey, UpdatePtr> wishes_;
    std::map<EntryKey, Known> known_;
    std::deque<EntryKey> dirty_;
    std::set<EntryKey> is_dirty_;
    std::map<EntryKey, UpdatePtr> in_flight_;
};

} // namespace ds::sim
