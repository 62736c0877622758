// The way between the nodes and the store: how long it takes, and whether there is one. What is on
// its way while a way is blocked arrives afterwards, unless its connection has ended meanwhile.
#pragma once
#include <algorithm>
#include <vector>

#include "sim/base/queue.h"

namespace ds::sim {

class Network {
  public:
    explicit Network(std::size_t nodes) : blocked_until_(nodes, 0) {}

    void block(int node, Time until) {
        Time &end = blocked_until_[static_cast<std::size_t>(node)];
        end = std::max(end, until);
    }
    void block_store(Time until) { store_away_until_ = std::max(store_away_until_, until); }
    void heal() {
        std::fill(blocked_until_.begin(), blocked_until_.end(), 0);
        store_away_until_ = 0;
    }

    Time open_at(int node) const {
        return std::max(blocked_until_[static_cast<std::size_t>(node)], store_away_until_);
    }
    bool is_open(int node, Time now) const { return open_at(node) <= now; }
    bool is_store_there(Time now) const { return store_away_until_ <= now; }

  private:
    std::vector<Time> blocked_until_;
    Time store_away_until_ = 0;
};

} // namespace ds::sim
