#include "relay/etcd/transactions.h"

#include <utility>

namespace ds::relay::etcd {

Operation put_operation(std::string key, std::string value, std::int64_t lease) {
    return {Operation::Kind::put, {std::move(key), {}}, std::move(value), lease};
}

Operation remove_operation(KeyRange keys) {
    return {Operation::Kind::remove, std::move(keys), {}, 0};
}

Operation range_operation(std::string key) {
    return {Operation::Kind::range, {std::move(key), {}}, {}, 0};
}

Transaction fenced(const Membership &self, std::vector<Operation> operations) {
    Transaction transaction;
    transaction.compares = {{self.key, Compare::Target::value, 0, self.value}};
    transaction.on_success = std::move(operations);
    return transaction;
}

Transaction claim(const Membership &self) {
    Transaction transaction;
    transaction.compares = {{self.key, Compare::Target::create_revision, 0, {}}};
    transaction.on_success = {put_operation(self.key, self.value, self.lease)};
    return transaction;
}

Transaction take_over(const Keys &keys, const Membership &self, const KeyValue &found,
                      const std::string &rack) {
    Transaction transaction;
    transaction.compares = {{self.key, Compare::Target::mod_revision, found.mod_revision, {}}};
    if (rack != self.rack) // nobody looks after them any more
        transaction.on_success = {remove_operation(keys.rack_entries_of(rack, self.address))};
    transaction.on_success.push_back(put_operation(self.key, self.value, self.lease));
    return transaction;
}

Transaction write(const Membership &self, const OwnEntries::Batch &batch) {
    std::vector<Operation> operations;
    for (const OwnEntries::Write &write : batch.writes)
        operations.push_back(write.value ? put_operation(write.key, *write.value)
                                         : remove_operation({write.key, {}}));
    return fenced(self, std::move(operations));
}

Transaction withdraw(const Keys &keys, const Membership &self) {
    return fenced(self, {remove_operation(keys.system_entries_of(self.address)),
                         remove_operation(keys.rack_entries_of(self.rack, self.address)),
                         remove_operation({keys.probe(self.address), {}}),
                         remove_operation({self.key, {}})});
}

Transaction clean(const Keys &keys, const View::Remains &remains) {
    Transaction transaction;
    transaction.compares = {{keys.node(remains.node), Compare::Target::create_revision, 0, {}}};
    for (const KeyRange &range : remains.ranges)
        transaction.on_success.push_back(remove_operation(range));
    transaction.on_success.push_back(remove_operation({keys.probe(remains.node), {}}));
    return transaction;
}

} // namespace ds::relay::etcd
