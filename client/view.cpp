#include "client/view.h"

#include <algorithm>
#include <cstring>

namespace ds::client {
namespace {

ds_client_instance_t instance_of(const v1::Instance &message) {
    ds_client_instance_t view{};
    view.size = sizeof view;
    view.instance = message.instance().c_str();
    view.service_id = message.service_id();
    view.generation = message.generation();
    view.scope = static_cast<std::uint32_t>(message.scope());
    view.pid = message.pid();
    copy_node(message.node(), view.node);
    view.is_local = message.local() ? 1 : 0;
    const v1::Endpoint &endpoint = message.endpoint();
    if (endpoint.has_path()) view.path = endpoint.path().c_str();
    view.ipv4_address = endpoint.ipv4().address();
    view.ipv4_port = endpoint.ipv4().port();
    view.ha_role = static_cast<std::uint32_t>(message.ha_role());
    view.issu_role = static_cast<std::uint32_t>(message.issu_role());
    view.issu_id = message.issu_id();
    return view;
}

} // namespace

void copy_node(std::string_view address, std::uint8_t (&node)[6]) {
    std::fill(std::begin(node), std::end(node), std::uint8_t{0});
    if (address.size() == sizeof node) std::memcpy(node, address.data(), sizeof node);
}

SnapshotView::SnapshotView(const v1::Snapshot &snapshot) {
    instances_.reserve(static_cast<std::size_t>(snapshot.instances_size()));
    pointers_.reserve(instances_.capacity());
    for (const v1::Instance &instance : snapshot.instances()) {
        instances_.push_back(instance_of(instance));
        pointers_.push_back(&instances_.back());
    }
    snapshot_.size = sizeof snapshot_;
    snapshot_.name = snapshot.name().c_str();
    snapshot_.version = snapshot.version();
    snapshot_.instance_count = instances_.size();
    snapshot_.instances = pointers_.data();
    snapshot_.is_reconciling = snapshot.reconciling() ? 1 : 0;
    snapshot_.is_resynced = snapshot.resynced() ? 1 : 0;
}

NamesView::NamesView(const v1::ListReply &reply) {
    snapshots_.reserve(static_cast<std::size_t>(reply.names_size()));
    pointers_.reserve(snapshots_.capacity());
    for (const v1::Snapshot &snapshot : reply.names()) {
        snapshots_.emplace_back(snapshot);
        pointers_.push_back(&snapshots_.back().get());
    }
    names_.size = sizeof names_;
    names_.name_count = pointers_.size();
    names_.names = pointers_.data();
    names_.next = reply.next().c_str();
}

ds_client_figures_t figures_of(const v1::StatusReply &reply) {
    ds_client_figures_t view{};
    view.size = sizeof view;
    view.daemon_version = reply.daemon_version().c_str();
    view.socket = reply.socket().c_str();
    view.trace_directory = reply.trace_directory().c_str();
    view.relay = reply.relay().c_str();
    view.uptime_ms = reply.uptime_ms();
    view.pid = reply.pid();
    copy_node(reply.node(), view.node);
    view.sessions = reply.sessions();
    view.sessions_total = reply.sessions_total();
    view.names = reply.names();
    view.services = reply.services();
    view.registrations = reply.registrations();
    view.publishes = reply.publishes();
    view.withdrawals = reply.withdrawals();
    view.notifications = reply.notifications();
    view.coalesced = reply.coalesced();
    view.bad_frames = reply.bad_frames();
    view.queued_bytes = reply.queued_bytes();
    view.resident_bytes = reply.resident_bytes();
    return view;
}

} // namespace ds::client
