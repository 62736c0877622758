// Publishing: a new instance, a changed one, or a relay replay.

#include "ds_trace.h"

namespace {

const char *news(const ds_service_t *service) {
    return service->gen == 1 ? "new" : "modified";
}

// Finds the element of the name or makes one. Null when that failed; result then holds what to
// return.
ds_service_elem_t *find_or_add_element(const char *name, int &result) {
    ds_service_elem_t *selem = NULL;
    ds_db_find_service_element(name, &selem);
    if (selem != NULL) return selem;

    result = ds_db_init_service_element(name, &selem);
    if (result != 0 || selem == NULL) {
        DS_TRACE_IN("ds_db_publish_service", DS_PUBLISH_SERVICE_ERR_1, name);
        return NULL;
    }
    result = ds_db_add_service_element(selem);
    if (result != 0) {
        ds_db_free_service_element(selem);
        return NULL;
    }
    return selem;
}

void send_to_relay(ds_service_t *service, const ds_node_t *node, uint32_t scope) {
    if (node == ds_local_node() && ds_is_replicated(scope) &&
        !ds_timer_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER))
        ds_remote_notify(service, DS_REMOTE_PUBLISHED);
}

} // namespace

extern "C" {

int ds_db_publish_service(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                          const ds_dsr_service_ref_t *dsr_ref) {
    if (info == NULL || ds_db_context() == NULL || info->service_name == NULL) return -1;
    const char *name = info->service_name;
    const uint32_t scope = ds_get_scope(info);
    const char *instance = ds_get_instance(info);
    const uint32_t dsr_id = dsr_ref != NULL ? dsr_ref->id : 0;

    int result = 0;
    ds_service_elem_t *selem = find_or_add_element(name, result);
    if (selem == NULL) return result;

    if (dsr_ref != NULL) {
        uint8_t replayed = 0;
        result = ds_db_check_if_service_replayed_from_dsr(client_idx, node, info, selem, dsr_ref,
                                                          &replayed);
        if (result != 0) DS_TRACE(DS_PUBLISH_SERVICE_ERR_2, name);
        if (replayed != 0) return result;
    }

    ds_client_t *client = NULL;
    if (node == ds_local_node() && dsr_ref == NULL) {
        client = ds_db_find_client_by_client_idx(client_idx);
        if (client == NULL) {
            DS_TRACE(DS_PUBLISH_SERVICE_ERR_3, name);
            return -1;
        }
    }

    ds_service_t *service = NULL;
    if (ds_db_find_service(name, instance, client_idx, scope, node, &selem, &service, dsr_id) != 0)
        return result;
    if (service != NULL) return ds_db_handle_service_modified(service, info, node, selem, client);
    return ds_db_handle_service_new(client_idx, node, info, selem, client, dsr_id);
}

int ds_db_check_if_service_replayed_from_dsr(uint32_t client_idx, ds_node_t *node,
                                             ds_service_publish_info *info,
                                             ds_service_elem_t *selem,
                                             const ds_dsr_service_ref_t *dsr_ref,
                                             uint8_t *replayed_out) {
    if (info == NULL || selem == NULL || dsr_ref == NULL || replayed_out == NULL) return -1;
    *replayed_out = 0;
    const bool own_entry_in_own_period =
        ds_timer_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER) && node == ds_local_node();
    if (!own_entry_in_own_period && !ds_timer_running(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER)) return 0;
    *replayed_out = 1;
    return ds_db_resolve_service_info_from_dsr(client_idx, node, info, selem, dsr_ref);
}

int ds_db_handle_service_new(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                             ds_service_elem_t *selem, ds_client_t *client, uint32_t dsr_id) {
    if (info == NULL || selem == NULL || ds_db_context() == NULL) return -1;
    ds_service_t *service = NULL;
    if (ds_db_init_service(client_idx, node, info, selem->name_hash, &service, client, selem,
                           dsr_id) != 0 ||
        service == NULL) {
        DS_TRACE(DS_DB_SERVICE_NEW, selem->name);
        return -1;
    }
    if (ds_db_add_service(service, client) != 0) {
        DS_TRACE(DS_DB_SERVICE_NEW_1, selem->name);
        return -1;
    }

    const uint32_t scope = ds_get_scope(info);
    if (node == ds_local_node() && scope != DS_SCOPE_LOCAL &&
        ds_timer_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER)) {
        DS_TRACE(DS_RESOLVE_SERVICE);
        ds_db_resolve_service_entry_to_dsr(service, selem);
    }

    if (client != NULL)
        DS_TRACE(DS_PUBLISH_SERVICE, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), selem->name, ds_scope_name(scope),
                 service->gen, selem->selem_version, ds_node_name(node), news(service));
    else
        DS_TRACE(DS_PUBLISH_SERVICE_REMOTE, selem->name, ds_scope_name(scope), service->gen,
                 selem->selem_version, ds_node_name(node), news(service));
    trace_endpoints(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
    send_to_relay(service, node, scope);
    ds_notify(selem);
    return 0;
}

int ds_db_handle_service_modified(ds_service_t *service, ds_service_publish_info *info,
                                  ds_node_t *node, ds_service_elem_t *selem, ds_client_t *client) {
    if (service == NULL || info == NULL || selem == NULL || ds_db_context() == NULL) return -1;
    const uint32_t scope = ds_get_scope(info);
    // The generation is read before it is raised, so a first change prints "new".
    if (client != NULL)
        DS_TRACE(DS_PUBLISH_SERVICE_UPDATE, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), selem->name, ds_scope_name(scope),
                 service->gen, selem->selem_version, ds_node_name(node), news(service));
    else
        DS_TRACE(DS_PUBLISH_SERVICE_REMOTE_UPDATE, selem->name, ds_scope_name(scope), service->gen,
                 selem->selem_version, ds_node_name(node), news(service));
    trace_endpoints(service, ds_lib_rtrace[DS_CHANNEL_PUB]);

    const bool is_takeover = ds_is_placeholder(service) && client != NULL;
    if (ds_db_update_service(service, info, client) == 0 && is_takeover) {
        service->proc_id = client->client_idx;
        service->pid = static_cast<uint32_t>(ds_client_pid(client));
    }
    if (node == ds_local_node() && ds_timer_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER)) {
        service->flags &= ~static_cast<uint32_t>(DS_SERVICE_FLAG_DSR_CONFIRMED);
        service->flags |= DS_SERVICE_FLAG_RECONCILE;
    }
    send_to_relay(service, node, scope);
    ds_notify(selem);
    return 0;
}
}
