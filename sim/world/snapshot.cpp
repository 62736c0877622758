#include "sim/world/snapshot.h"

#include <algorithm>

#include "host/records.h"
#include "platform_default/platform_default.h"
#include "sim/base/queue.h"
#include "sim/relay/addresses.h"
#include "sim/world/names.h"

namespace ds::sim {

bool have_same_contents(std::vector<Instance> a, std::vector<Instance> b) {
    if (a.size() != b.size()) return false;
    std::sort(a.begin(), a.end(), has_lesser_contents);
    std::sort(b.begin(), b.end(), has_lesser_contents);
    return std::equal(a.begin(), a.end(), b.begin(), [](const Instance &x, const Instance &y) {
        return x.contents() == y.contents();
    });
}

// A node for which there was no memory is a small number in place of a record.
int node_of(const ds_service_t *service) {
    constexpr std::uintptr_t number_without_record_max = 127;
    if (reinterpret_cast<std::uintptr_t>(service->node) <= number_without_record_max) return nobody;
    relay::NodeAddress address = {};
    std::copy_n(service->node->addr, address.size(), address.begin());
    return node_of(address);
}

Instance instance_of(const ds_service_t *service) {
    Instance instance;
    instance.node = node_of(service);
    instance.pid = service->pid;
    instance.instance = service->instance != nullptr ? number_in(service->instance) : 0;
    instance.scope = service->scope;
    instance.service_id = service->service_id;
    instance.generation = service->gen;
    const std::uint8_t *bytes = nullptr;
    std::uint64_t length = 0;
    std::uint32_t scope = 0;
    if (ds_get_service_publish_info_at_v2(service->publish_info, 0, &bytes, &length, &scope,
                                          &instance.ha_role) == 0)
        ds_decode_endpoint(bytes, length, &instance.endpoint, nullptr);
    return instance;
}

SnapshotPtr snapshot_of(ds_service_elem_t *element) {
    auto snapshot = std::make_shared<Snapshot>();
    snapshot->name = number_in({element->name, element->name_len});
    snapshot->version = element->selem_version;
    snapshot->is_reconciling = host::is_restart_period_open();
    for (const ds_service_t *service = ds_service_get_service_list_head(element);
         service != nullptr;
         service = ds_service_get_next_in_service_list(const_cast<ds_service_t *>(service)))
        if (host::is_live(service)) snapshot->instances.push_back(instance_of(service));
    return snapshot;
}

bool Reported::take(const Snapshot &snapshot) {
    Snapshot now = snapshot;
    if (is_lost_) {
        carried_ = newest_->instances;
        is_recovering_ = true;
        is_lost_ = false;
    }
    const bool was_recovering = is_recovering_;
    if (is_recovering_ && now.is_reconciling) carry_over(now);
    // An end of the restart period is news to whom its beginning was told.
    const bool settles = was_told_reconciling_ && !now.is_reconciling;
    const bool is_news =
        !was_recovering || settles || !have_same_contents(newest_->instances, now.instances);
    if (!now.is_reconciling) {
        is_recovering_ = false;
        carried_.clear();
    }
    if (is_news) was_told_reconciling_ = now.is_reconciling;
    newest_ = std::move(now);
    return is_news;
}

// Adds what is missing. What is back is no longer carried: when it goes now, it has gone.
void Reported::carry_over(Snapshot &now) {
    const auto is_before = [](const Instance &a, const Instance &b) {
        return a.identity() < b.identity();
    };
    std::vector<Instance> present = now.instances;
    std::sort(present.begin(), present.end(), is_before);
    std::erase_if(carried_, [&](const Instance &carried) {
        return std::binary_search(present.begin(), present.end(), carried, is_before);
    });
    now.instances.insert(now.instances.end(), carried_.begin(), carried_.end());
}

} // namespace ds::sim
