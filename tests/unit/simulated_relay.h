// The relay between the nodes of a cluster story: what it holds, and what it does with an update.
//
// It does as a good relay does: it writes nothing that it already holds, takes one entry away for
// a deletion, and none when the entry is newer. It counts the answers to entries that it handed to
// their own node. Carrying updates about is the fixture's part (cluster_fixture.h).
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "recording.h"

extern "C" {
#include "platform/dsr.h"
}

class SimulatedRelay {
  public:
    struct Entry {
        uint8_t origin; // last octet of the node's address
        recording::SentUpdate update;
        bool is_rewritten; // its node has sent it since it connected last
        bool is_offered;   // it was handed to its own node outside the restart period
    };

    // Keeps an update of a node. True when the other nodes have to hear of it.
    bool take(uint8_t origin, const recording::SentUpdate &update) {
        const Key key = {origin, update.service_id};
        const auto found = entries_.find(key);
        if (update.operation == DSR_DELETE) return take_deletion(found, update);
        if (found != entries_.end() && holds_the_same(found->second.update, update)) {
            found->second.is_rewritten = true;
            return false;
        }
        entries_[key] = {origin, update, true, false};
        return true;
    }

    std::vector<Entry> entries() const {
        std::vector<Entry> result;
        for (const auto &[key, entry] : entries_)
            result.push_back(entry);
        return result;
    }

    // The entries of a node that it has not sent since it connected; each is offered from now on.
    std::vector<Entry> offer_stale(uint8_t origin) {
        std::vector<Entry> result;
        for (auto &[key, entry] : entries_) {
            if (entry.origin != origin || entry.is_rewritten) continue;
            entry.is_offered = true;
            result.push_back(entry);
        }
        return result;
    }

    void node_connects(uint8_t origin) {
        for (auto &[key, entry] : entries_)
            if (entry.origin == origin) entry.is_rewritten = entry.is_offered = false;
    }
    void forget_node(uint8_t origin) {
        std::erase_if(entries_, [&](const auto &item) { return item.second.origin == origin; });
    }
    void forget_everything() { entries_.clear(); }
    // An entry that some earlier life of the node left behind.
    void plant(uint8_t origin, const recording::SentUpdate &update) {
        entries_[{origin, update.service_id}] = {origin, update, false, false};
    }

    // The versions of deletions that answered an offered entry, in order, and the number of
    // deletions for which there was no entry, or a newer one.
    const std::vector<uint32_t> &bounces() const { return bounces_; }
    uint32_t vain_deletions() const { return vain_deletions_; }

  private:
    using Key = std::pair<uint8_t, uint32_t>;
    using Entries = std::map<Key, Entry>;

    static bool holds_the_same(const recording::SentUpdate &old,
                               const recording::SentUpdate &update) {
        return old.service_name == update.service_name && old.has_instance == update.has_instance &&
               old.instance == update.instance && old.scope == update.scope &&
               old.pid == update.pid && old.version == update.version &&
               old.endpoint == update.endpoint && old.attributes == update.attributes;
    }

    bool take_deletion(Entries::iterator found, const recording::SentUpdate &update) {
        if (found == entries_.end() || update.version < found->second.update.version) {
            ++vain_deletions_;
            return false;
        }
        if (found->second.is_offered) bounces_.push_back(update.version);
        entries_.erase(found);
        return true;
    }

    Entries entries_;
    std::vector<uint32_t> bounces_;
    uint32_t vain_deletions_ = 0;
};
