// Relay connection events, and what remains of a node that went down.

#include "ds_trace.h"

namespace {

constexpr uint32_t restart_period_s = 30;   // from the disconnect
constexpr uint32_t reconnect_period_s = 40; // from a reconnect inside that period

void set_relay_connected(bool is_connected) {
    ds_globals_t *block = ds_globals_get();
    *reinterpret_cast<uint8_t *>(&block->slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) =
        is_connected ? 1 : 0;
}

// Removes the node's services of one element. The element's version rises in any case.
int remove_services_of_node(void *element, void *node_id) {
    ds_service_elem_t *selem = static_cast<ds_service_elem_t *>(element);
    uint32_t removed = 0;
    ds_service_t *next = NULL;
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = next) {
        next = ds_service_get_next_in_service_list(service);
        if (service->node != node_id) continue;
        DS_TRACE(DS_NODE_DOWN_SERVICE_DELETED, reinterpret_cast<uint64_t>(node_id));
        trace_service_info(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
        ds_db_drop_service(service);
        removed++;
    }
    selem->selem_version++;
    if (removed != 0 && ds_service_get_client_reg_list_head(selem) != NULL) ds_notify(selem);
    return 1;
}

} // namespace

extern "C" {

int dsr_connect_cb(void) {
    if (ds_globals_get() == NULL) return -1;
    if (ds_timer_running(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER)) {
        mgd_timer_t *timer =
            reinterpret_cast<mgd_timer_t *>(ds_slot(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER));
        mgd_timer_leaf_stop(timer);
        DS_TRACE(DS_RTRACE_DSR_RESTART_TIMER_START, static_cast<void *>(timer));
        mgd_timer_leaf_start(timer, {reconnect_period_s, 0});
    }
    set_relay_connected(true);
    DS_TRACE(DSR_CONNECT_CB);
    if (ds_timer_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER)) return 0;
    DS_TRACE(DSR_REMOTE_SEND);
    return ds_remote_send_all();
}

int dsr_disconn_cb(void) {
    ds_globals_t *block = ds_globals_get();
    if (block == NULL) return -1;
    set_relay_connected(false);
    DS_TRACE(DSR_DISCONN_CB);
    ds_db_dsr_restarted();
    // A timer that an earlier disconnect left is the host's to stop and release.
    mgd_timer_t *timer = mgd_timer_leaf_new(
        reinterpret_cast<mgd_timer_t *>(block->slot[DS_GLOBAL_SLOT_TIMER_PARENT]),
        block->slot[DS_GLOBAL_SLOT_TIMER_CONTEXT], 0, 0);
    block->slot[DS_GLOBAL_SLOT_RELAY_RESTART_TIMER] = reinterpret_cast<uint64_t>(timer);
    if (timer != NULL) mgd_timer_leaf_start(timer, {restart_period_s, 0});
    return 0;
}

int dsr_peer_down_cb(const uint8_t *address) {
    if (address == NULL || ds_db_context() == NULL) return -1;
    const uint64_t node_id = platform_get_nodeid_from_ethaddr(address);
    DS_TRACE(DS_PEER_DOWN_NOTIF, ds_peer_addr_text(address), node_id);
    if (node_id == reinterpret_cast<uint64_t>(ds_local_node())) {
        DS_TRACE(DSR_PEER_DOWN_NOTIF_ERR);
        return -1;
    }
    return ds_db_node_down(node_id);
}

int ds_db_node_down(uint64_t node_id) {
    ds_db_t *db = ds_db_context();
    if (db == NULL) return -1;
    ds_node_t *node = reinterpret_cast<ds_node_t *>(node_id);
    DS_TRACE(DS_DB_NODE_DOWN_DELETE_SERVICES, ds_node_name(node));
    if (ds_node_is_record(node)) {
        node->down_count++;
        node->last_down_time = fts_get_stamp_fast();
    }
    avl_walk(&db->selem_tree, remove_services_of_node, node);
    return 0;
}
}
