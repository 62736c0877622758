// Restart periods: which of two copies of a service survives, the local client's or the relay's,
// and whose identity it carries. Nothing here is sent to the relay, and nobody is notified.

#include "ds_trace.h"

namespace {

// The operations that the console names.
constexpr char from_dsr[] = "ds_db_resolve_service_info_from_dsr";
constexpr char to_dsr[] = "ds_db_resolve_service_entry_to_dsr";

// The record takes over the identity that the relay knows; its own generation yields, whichever is
// higher.
void adopt_identity(ds_service_t *service, uint32_t service_id, uint32_t gen) {
    service->service_id = service_id;
    service->flags |= DS_SERVICE_FLAG_DSR_CONFIRMED;
    service->gen = gen;
    service->prev_ver = gen;
}

// The record that a relay delivery is about, or null. Instance and scope do not count.
ds_service_t *find_replayed(uint32_t client_idx, const ds_node_t *node,
                            ds_service_publish_info *info, ds_service_elem_t *selem) {
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = ds_service_get_next_in_service_list(service)) {
        DS_TRACE_IN(from_dsr, RESOLVE_SERVICE_INFO_FROM_DSR_1, service->service_id, selem->name,
                    ds_scope_name(ds_get_scope(service->publish_info)), service->gen,
                    ds_node_name(node), ds_is_placeholder(service));
        if (service->node == node && service->pid == client_idx &&
            ds_db_service_endpoints_equal(service, info))
            return service;
    }
    return NULL;
}

// The relay-owned twin of a local record, or null.
ds_service_t *find_twin(const ds_service_t *service, ds_service_elem_t *selem) {
    for (ds_service_t *other = ds_service_get_service_list_head(selem); other != NULL;
         other = ds_service_get_next_in_service_list(other)) {
        DS_TRACE_IN(to_dsr, RESOLVE_SERVICE_INFO_TO_DSR_1, selem->name,
                    ds_scope_name(ds_get_scope(other->publish_info)), other->gen,
                    ds_node_name(other->node), ds_is_placeholder(other));
        if (ds_is_placeholder(other) && other->node == service->node &&
            other->pid == service->pid &&
            ds_db_service_endpoints_equal(other, service->publish_info))
            return other;
    }
    return NULL;
}

int add_relay_owned(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                    ds_service_elem_t *selem, const ds_dsr_service_ref_t *dsr_ref) {
    ds_service_t *service = NULL;
    if (ds_db_init_service(DS_PROC_ID_FROM_DSR, node, info, selem->name_hash, &service, NULL, selem,
                           dsr_ref->id) != 0 ||
        service == NULL) {
        DS_TRACE_IN(from_dsr, DS_DB_INIT_SERVICE_FROM_DSR, selem->name);
        return -1;
    }
    if (ds_db_add_service(service, NULL) != 0) {
        DS_TRACE_IN(from_dsr, DS_DB_ADD_SERVICE_FROM_DSR, selem->name);
        return -1;
    }
    adopt_identity(service, dsr_ref->id, dsr_ref->gen);
    service->pid = client_idx;
    DS_TRACE_IN(from_dsr, DS_DB_SERVICE_NAME_FROM_DSR, selem->name,
                ds_scope_name(ds_get_scope(info)), service->gen, selem->selem_version,
                ds_node_name(node), service->gen == 1 ? "new" : "modified",
                ds_text(info->service_name), client_idx, service->flags);
    return 0;
}

} // namespace

extern "C" {

int ds_db_resolve_service_info_from_dsr(uint32_t client_idx, ds_node_t *node,
                                        ds_service_publish_info *info, ds_service_elem_t *selem,
                                        const ds_dsr_service_ref_t *dsr_ref) {
    if (info == NULL || selem == NULL || dsr_ref == NULL || ds_db_context() == NULL) return -1;
    DS_TRACE(RESOLVE_SERVICE_INFO_FROM_DSR, dsr_ref->id, ds_text(info->service_name),
             ds_scope_name(ds_get_scope(info)), dsr_ref->gen, ds_node_name(node));
    ds_service_t *service = find_replayed(client_idx, node, info, selem);
    if (service == NULL) return add_relay_owned(client_idx, node, info, selem, dsr_ref);
    if (!ds_is_placeholder(service))
        DS_TRACE(RESOLVE_SERVICE_INFO_FROM_DSR_2, service->service_id, selem->name,
                 ds_scope_name(ds_get_scope(service->publish_info)), service->gen,
                 ds_node_name(node));
    else
        DS_TRACE(RESOLVE_SERVICE_INFO_FROM_DSR_3, dsr_ref->id, ds_text(info->service_name),
                 ds_scope_name(ds_get_scope(info)), dsr_ref->gen, ds_node_name(node));
    adopt_identity(service, dsr_ref->id, dsr_ref->gen);
    return 0;
}

int ds_db_resolve_service_entry_to_dsr(ds_service_t *service, ds_service_elem_t *selem) {
    if (service == NULL || selem == NULL) return 0;
    const uint32_t scope = ds_get_scope(service->publish_info);
    DS_TRACE(RESOLVE_SERVICE_INFO_TO_DSR, selem->name, ds_scope_name(scope), service->gen,
             ds_node_name(service->node));
    service->flags |= DS_SERVICE_FLAG_RECONCILE;
    ds_service_t *twin = find_twin(service, selem);
    if (twin == NULL) return 0;
    DS_TRACE(RESOLVE_SERVICE_INFO_TO_DSR_2, selem->name, ds_scope_name(scope), twin->gen,
             ds_node_name(twin->node));
    adopt_identity(service, twin->service_id, twin->gen);
    ds_db_drop_service(twin);
    return 0;
}

int ds_db_mark_remote_services(void *selem, void *unused) {
    (void)unused;
    for (ds_service_t *service =
             ds_service_get_service_list_head(static_cast<ds_service_elem_t *>(selem));
         service != NULL; service = ds_service_get_next_in_service_list(service))
        if (service->node != ds_local_node()) service->flags = DS_SERVICE_FLAG_RECONCILE;
    return 1;
}
}
