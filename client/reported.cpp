#include "client/reported.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

namespace ds::client {
namespace {

// What makes two instances of a name the same publication of the same process.
auto identity(const v1::Instance &instance) {
    return std::tuple<const std::string &, const std::string &, int, std::uint32_t>(
        instance.instance(), instance.node(), instance.scope(), instance.pid());
}

std::vector<const v1::Instance *> sorted_by_identity(const v1::Snapshot &snapshot) {
    std::vector<const v1::Instance *> instances;
    instances.reserve(static_cast<std::size_t>(snapshot.instances_size()));
    for (const v1::Instance &instance : snapshot.instances())
        instances.push_back(&instance);
    std::sort(instances.begin(), instances.end(),
              [](const auto *a, const auto *b) { return identity(*a) < identity(*b); });
    return instances;
}

// Everything that a watcher sees but the numbers that a new daemon hands out anew, in a fixed
// order.
std::vector<std::string> contents(const v1::Snapshot &snapshot) {
    std::vector<std::string> all;
    all.reserve(static_cast<std::size_t>(snapshot.instances_size()));
    for (const v1::Instance &instance : snapshot.instances()) {
        v1::Instance plain(instance);
        plain.clear_service_id();
        plain.clear_generation();
        all.push_back(plain.SerializeAsString());
    }
    std::sort(all.begin(), all.end());
    return all;
}

bool has_same_instances(const v1::Snapshot &a, const v1::Snapshot &b) {
    return a.instances_size() == b.instances_size() && contents(a) == contents(b);
}

} // namespace

bool Reported::take(v1::Snapshot now) {
    if (lost_) begin_recovery();
    const bool was_recovering = recovering_;
    if (recovering_ && now.reconciling()) carry_over(now);
    // An end of the restart period is news to whom its beginning was told.
    const bool settles = told_reconciling_ && !now.reconciling();
    const bool is_news = !was_recovering || settles || !has_same_instances(*newest_, now);
    if (!now.reconciling()) {
        recovering_ = false;
        carried_ = {};
    }
    if (is_news) told_reconciling_ = now.reconciling();
    newest_ = std::move(now);
    return is_news;
}

void Reported::lose_connection() {
    lost_ = newest_.has_value();
}

void Reported::begin_recovery() {
    carried_ = std::vector<v1::Instance>(newest_->instances().begin(), newest_->instances().end());
    recovering_ = true;
    lost_ = false;
}

// Adds what is missing. What is back is no longer carried: when it goes now, it has gone.
void Reported::carry_over(v1::Snapshot &now) {
    const std::vector<const v1::Instance *> present = sorted_by_identity(now);
    const auto is_back = [&](const v1::Instance &carried) {
        return std::binary_search(
            present.begin(), present.end(), &carried,
            [](const auto *a, const auto *b) { return identity(*a) < identity(*b); });
    };
    std::erase_if(carried_, is_back);
    auto &instances = *now.mutable_instances();
    instances.Reserve(instances.size() + static_cast<int>(carried_.size()));
    for (const v1::Instance &carried : carried_)
        instances.AddAllocated(new v1::Instance(carried));
}

} // namespace ds::client
