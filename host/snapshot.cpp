#include "host/snapshot.h"

#include "ds.pb.h"
#include "host/fields.h"
#include "host/names.h"
#include "host/records.h"
#include "platform_default/platform_default.h"

namespace ds::host {

namespace {

using v1::Endpoint;
using v1::Instance;
using v1::Ipv4;
using v1::Snapshot;

constexpr std::size_t node_address_bytes = 6;
constexpr std::uintptr_t number_without_record_max = 127; // such a node reference names no record

// The path is decoded into this buffer instead of the heap; it is copied out at once.
char path_buffer[DS_ENDPOINT_PATH_BYTES_MAX + 1];

void *path_memory(std::size_t size) {
    return size <= sizeof path_buffer ? path_buffer : nullptr;
}

} // namespace

void encode_endpoint(std::uint32_t type, const std::uint8_t *bytes, std::uint64_t length,
                     std::string &out) {
    if (bytes == nullptr) return;
    Fields fields(out);
    if (type == DS_EP_TYPE_PATH) {
        vidl_ds_ep_path_t decoded = {};
        if (vidl_ds_ep_path_decode_ext(&decoded, bytes, length, path_memory, 0, 0) >= 0)
            fields.message(Endpoint::kPathFieldNumber, decoded.path);
        return;
    }
    std::uint32_t address = 0;
    std::uint32_t port = 0;
    ds_decode_endpoint(bytes, length, &address, &port);
    std::string ipv4; // short enough to need no heap
    Fields(ipv4).fixed32(Ipv4::kAddressFieldNumber, address);
    Fields(ipv4).number(Ipv4::kPortFieldNumber, port);
    fields.message(Endpoint::kIpv4FieldNumber, ipv4);
}

void encode_instance(const ds_service_t *service, std::string &out) {
    static std::string endpoint;
    endpoint.clear();
    const std::uint8_t *bytes = nullptr;
    std::uint64_t length = 0;
    std::uint32_t scope = 0, ha_role = 0, issu_role = 0, issu_id = 0;
    if (ds_get_service_publish_info_at_v5(service->publish_info, 0, &bytes, &length, &scope,
                                          &ha_role, &issu_role, &issu_id) == 0)
        encode_endpoint(ds_get_service_ep_type_at(service->publish_info, 0), bytes, length,
                        endpoint);

    Fields fields(out);
    fields.number(Instance::kServiceIdFieldNumber, service->service_id);
    fields.text(Instance::kInstanceFieldNumber, to_client_instance(service->instance));
    fields.number(Instance::kScopeFieldNumber, service->scope);
    if (reinterpret_cast<std::uintptr_t>(service->node) > number_without_record_max)
        fields.text(Instance::kNodeFieldNumber,
                    {reinterpret_cast<const char *>(service->node->addr), node_address_bytes});
    const auto local = ds_globals_get()->slot[DS_GLOBAL_SLOT_LOCAL_NODE];
    fields.number(Instance::kLocalFieldNumber,
                  reinterpret_cast<std::uintptr_t>(service->node) == local ? 1 : 0);
    if (!endpoint.empty()) fields.message(Instance::kEndpointFieldNumber, endpoint);
    fields.number(Instance::kHaRoleFieldNumber, ha_role);
    fields.number(Instance::kIssuRoleFieldNumber, issu_role);
    fields.number(Instance::kIssuIdFieldNumber, issu_id);
    fields.number(Instance::kGenerationFieldNumber, service->gen);
    fields.number(Instance::kPidFieldNumber, service->pid);
}

void encode_snapshot(ds_service_elem_t *element, std::string &out, bool resynced) {
    static std::string instance;
    Fields fields(out);
    const std::size_t end_max = out.size() + snapshot_bytes_max;
    fields.text(Snapshot::kNameFieldNumber, {element->name, element->name_len});
    fields.number(Snapshot::kVersionFieldNumber, element->selem_version);
    for (ds_service_t *service = ds_service_get_service_list_head(element); service != nullptr;
         service = ds_service_get_next_in_service_list(service)) {
        if (!is_live(service)) continue;
        instance.clear();
        encode_instance(service, instance);
        if (out.size() + Fields::message_bytes(instance.size()) > end_max) break;
        fields.message(Snapshot::kInstancesFieldNumber, instance);
    }
    const bool is_reconciling = is_restart_period_open();
    fields.number(Snapshot::kReconcilingFieldNumber, is_reconciling ? 1 : 0);
    fields.number(Snapshot::kResyncedFieldNumber, resynced && !is_reconciling ? 1 : 0);
}

const std::string &SnapshotCache::of(ds_service_elem_t *element) {
    if (element == last_element_) return *last_snapshot_;
    auto found = snapshots_.find(element);
    if (found == snapshots_.end()) {
        if (spare_.empty()) {
            found = snapshots_.try_emplace(element).first;
        } else {
            spare_.back().key() = element;
            found = snapshots_.insert(std::move(spare_.back())).position;
            spare_.pop_back();
        }
        encode_snapshot(element, found->second, resynced_);
    }
    last_element_ = element;
    last_snapshot_ = &found->second;
    return found->second;
}

void SnapshotCache::clear() {
    constexpr std::size_t spare_max = 64;
    constexpr std::size_t spare_capacity_max = 65'536;
    while (!snapshots_.empty()) {
        auto node = snapshots_.extract(snapshots_.begin());
        if (spare_.size() == spare_max || node.mapped().capacity() > spare_capacity_max) continue;
        node.mapped().clear();
        spare_.push_back(std::move(node));
    }
    last_element_ = nullptr;
    last_snapshot_ = nullptr;
}

} // namespace ds::host
