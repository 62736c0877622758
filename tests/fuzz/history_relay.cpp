// Steps of a history: the relay, other nodes, restart periods.
#include <array>

#include "history.h"

namespace ds::fuzz {

void History::receive(std::uint32_t operation) {
    Target target = some_target();
    const std::size_t sender = in_.below(node_count);
    target.node = harness_.nodes()[sender];
    target.proc_id = some_pid();
    target.id = static_cast<std::uint32_t>(in_.below(4));
    const std::uint32_t version = in_.byte();
    Endpoint endpoint = ip_endpoint(version % 4, target.scope, target.instance);
    if (version % 16 == 15) endpoint.address.clear();
    std::array<std::uint8_t, 64> attributes;
    std::int32_t attribute_bytes = 0;
    if (version % 8 == 7) {
        ds_service_attr_t attribute = {};
        VIDL_SET(&attribute, type, DS_ATTR_BIT_TYPE, DS_ATTR_HA_ROLE);
        VIDL_SET(&attribute, value, DS_ATTR_BIT_VALUE, version / 64);
        ds_service_attrs_t list = {};
        VIDL_SET_ARRAY(&list, attrs, DS_ATTRS_BIT_ATTRS, &attribute, 1);
        attribute_bytes =
            vidl_ds_service_attrs_encode_ext(&list, attributes.data(), attributes.size(), 0, 0, 0);
        endpoint.attributes = {{DS_ATTR_HA_ROLE, version / 64}};
    }

    const int result =
        dsr_receive_cb(operation, address_of(sender).data(), target.name.c_str(), target.id,
                       target.instance ? target.instance->c_str() : nullptr, target.scope,
                       target.proc_id, version, endpoint.address.data(), endpoint.address.size(),
                       attribute_bytes == 0 ? nullptr : attributes.data(),
                       static_cast<std::uint64_t>(attribute_bytes));

    require(result == model_.receive(operation, target, version, endpoint),
            "an update gave another result");
}

void History::receive_publication() {
    static constexpr std::array<std::uint32_t, 4> operations = {DSR_ADD, DSR_MODIFY, DSR_NOOP, 77};
    receive(operations[in_.below(operations.size())]);
}

void History::receive_deletion() {
    receive(DSR_DELETE);
}

void History::connect() {
    require(dsr_connect_cb() == 0, "connecting failed");
    model_.connect();
}

void History::disconnect() {
    harness_.disconnect_relay();
    model_.disconnect();
}

void History::peer_down() {
    const std::size_t node = in_.below(node_count);
    const int result = dsr_peer_down_cb(address_of(node).data());
    require(result == (node == 0 ? -1 : 0), "a peer's departure gave another result");
    if (node != 0) model_.node_down(harness_.nodes()[node]);
}

// This node, too: nobody else checks.
void History::node_down() {
    ds_node_t *node = some_node();
    require(ds_db_node_down(reinterpret_cast<std::uint64_t>(node)) == 0, "a departure failed");
    model_.node_down(node);
}

void History::mark_remote_services() {
    require(ds_db_dsr_restarted() == 0, "marking the remote services failed");
    model_.mark_remote_services();
}

void History::send_to_relay() {
    const ChosenService chosen = some_service();
    const auto request = static_cast<std::uint32_t>(in_.below(4));
    if (chosen.record == nullptr) return;
    require(ds_remote_notify(chosen.record, request) == 0, "sending to the relay failed");
    model_.send(chosen.name, *chosen.state, request);
}

void History::open_own_period() {
    harness_.open_own_period();
    model_.is_own_period = true;
}

void History::expire_own_period() {
    harness_.expire_own_period();
    if (model_.is_own_period) model_.finalize_restart();
    model_.is_own_period = false;
}

void History::expire_relay_period() {
    harness_.expire_relay_period();
    if (model_.is_relay_period) model_.finalize_restart();
    model_.is_relay_period = false;
}

// A host may settle whenever it likes; the period stays open.
void History::finalize() {
    require(ds_db_finalize_restart() == 0, "settling failed");
    model_.finalize_restart();
}

} // namespace ds::fuzz
