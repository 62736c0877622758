// What the engine asks the store to do in one step.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "relay/etcd/keys.h"
#include "relay/etcd/messages.h"
#include "relay/etcd/own_entries.h"
#include "relay/etcd/view.h"

namespace ds::relay::etcd {

Operation put_operation(std::string key, std::string value, std::int64_t lease = 0);
Operation remove_operation(KeyRange keys);
Operation range_operation(std::string key);

// What a connection holds of this node in the store.
struct Membership {
    NodeAddress address = {};
    std::string rack;
    std::string key;
    std::string value;
    std::int64_t lease = 0;
};

// Only for as long as the node key is the one that this connection wrote.
Transaction fenced(const Membership &self, std::vector<Operation> operations);

// Writes the node key where there is none.
Transaction claim(const Membership &self);
// Writes it in place of one that was found; its holder was in that rack.
Transaction take_over(const Keys &keys, const Membership &self, const KeyValue &found,
                      const std::string &rack);
Transaction write(const Membership &self, const OwnEntries::Batch &batch);
// The node and all its entries go.
Transaction withdraw(const Keys &keys, const Membership &self);
// What a dead node left; a node that is back keeps its entries.
Transaction clean(const Keys &keys, const View::Remains &remains);

} // namespace ds::relay::etcd
