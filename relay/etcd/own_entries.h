// This node's own entries: what the directory wants the store to hold, what it is known to hold,
// and the writes that bring the one to the other.
//
//   wish     known      what is done
//   value    other      written
//   value    same       nothing
//   no entry value      removed
//   none     value      nothing: left by an earlier life, offered to the directory; removed if it
//                       was written under an earlier node key
//
// A key is never in two writes at once, so the store sees its states in the order of the wishes;
// states that nobody waited for are skipped.
#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "relay/etcd/messages.h"

namespace ds::relay::etcd {

inline constexpr std::size_t batch_operations_max = 128; // the store's own limit
inline constexpr std::size_t batch_bytes_max = 1024 * 1024;

class OwnEntries {
  public:
    using Clock = std::chrono::steady_clock;
    using Value = std::optional<std::string>; // nothing: no entry

    struct Write {
        std::string key;
        Value value;
    };
    struct Batch {
        std::vector<Write> writes;
        Clock::time_point sent;
    };

    // ---- wishes ----

    void wish(const std::string &key, Value value);
    // The directory will say anew what it wants.
    void forget_wishes();

    // ---- the store ----

    // Takes a whole list of own entries as what the store holds. Those last written at
    // `counts_from` or before belong to an earlier node key and have to be written again.
    void replace_known(const std::vector<KeyValue> &items, std::int64_t counts_from);

    // The next writes; empty when there is nothing to do that may be done now.
    Batch next_batch(Clock::time_point now);
    // The batch was done at that revision.
    void complete(const Batch &batch, std::int64_t revision);
    // What was under way may or may not have been done; a new list will tell.
    void abandon_writes();

    struct Seen {
        // The store's state is not one that this process wrote; it is corrected if there is a wish.
        bool is_foreign = false;
        // When the write left that comes back with this event; nothing for any other event, and
        // for the second and later events of one write.
        std::optional<Clock::time_point> sent;
    };
    // An own entry in the watch; nothing for a deletion.
    Seen saw(const std::string &key, const Value &value, std::int64_t revision);

    // Has those removed that nobody wished for and that were written under an earlier node key: no
    // node counts them, so there is nothing to judge.
    void remove_void();
    // Entries that nobody wished for, for the directory to judge. Each is given out once, and a
    // second time outside the restart period when the first time was within.
    std::vector<KeyValue> take_leftovers(bool is_own_period_open);

    bool is_settled() const { return dirty_.empty() && in_flight_.empty(); }
    std::size_t waiting() const { return dirty_.size() + in_flight_.size(); }
    bool is_busy(const std::string &key) const {
        return in_flight_.contains(key) || is_dirty_.contains(key);
    }
    std::int64_t revision_of(const std::string &key) const; // 0: not there
    void for_each_key(const std::function<void(const std::string &, std::int64_t)> &visit) const;

  private:
    struct Known {
        std::string value;
        std::int64_t revision = 0;
        bool counts = true;        // false: written under an earlier node key
        bool was_replayed = false; // given out in the restart period
        bool was_offered = false;  // given out outside it
    };
    struct InFlight {
        Value value;
        Clock::time_point sent;
    };

    bool is_fulfilled(const std::string &key, const Value &wish) const;
    void mark(const std::string &key);
    void mark_unless_fulfilled(const std::string &key);
    void set_known(const std::string &key, const Value &value, std::int64_t revision);
    std::int64_t newest_revision_of(const std::string &key) const;

    std::unordered_map<std::string, Value> wishes_;
    std::map<std::string, Known> known_;
    std::unordered_map<std::string, std::int64_t> removed_; // the revision, until it came back
    std::map<std::int64_t, Clock::time_point> unechoed_;    // done, but not come back: when it left
    std::deque<std::string> dirty_;                         // in the order of the wishes
    std::unordered_set<std::string> is_dirty_;
    std::unordered_map<std::string, InFlight> in_flight_;
};

} // namespace ds::relay::etcd
