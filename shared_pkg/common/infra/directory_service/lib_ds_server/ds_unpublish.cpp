// Withdrawal of a service, and what happens when one goes down.

#include "ds_trace.h"

namespace {

constexpr char operation[] = "ds_db_handle_service_down"; // what the console names

bool is_empty(ds_service_elem_t *selem) {
    return ds_service_get_service_list_head(selem) == NULL &&
           ds_service_get_client_reg_list_head(selem) == NULL;
}

void take_down_announced(ds_service_t *service, ds_client_t *client) {
    ds_service_elem_t *selem = service->selem;
    const uint32_t scope = ds_get_scope(service->publish_info);
    if (client != NULL)
        DS_TRACE_IN(operation, DS_DELETED_SERVICE, ds_client_pid(client),
                    reinterpret_cast<void *>(client->client_hdl), selem->name, ds_scope_name(scope),
                    service->gen, ds_node_name(service->node));
    else
        DS_TRACE_IN(operation, DS_DELETED_SERVICE_REMOTE, selem->name, ds_scope_name(scope),
                    service->gen, ds_node_name(service->node));
    trace_service_info(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
    // A withdrawal goes out in the own restart period too, unlike a publication.
    if (service->node == ds_local_node() && ds_is_replicated(scope))
        ds_remote_notify(service, DS_REMOTE_WITHDRAWN);
    ds_db_delete_service(service, client);
    ds_notify(selem);
    if (!is_empty(selem)) return;
    if (client != NULL)
        DS_TRACE_IN(operation, DS_DELETED_SERVICE_ELEM_3, ds_client_pid(client),
                    reinterpret_cast<void *>(client->client_hdl), selem->name);
    else
        DS_TRACE_IN(operation, DS_DELETED_SERVICE_ELEM_4, selem->name);
    ds_db_delete_service_element(selem);
}

// A publication without endpoints goes as it came: nobody is told.
void take_down_silent(ds_service_t *service, ds_client_t *client) {
    ds_service_elem_t *selem = service->selem;
    ds_db_delete_service(service, client);
    if (!is_empty(selem)) return;
    if (client != NULL)
        DS_TRACE_IN(operation, DS_DELETED_SERVICE_ELEM_1, ds_client_pid(client),
                    reinterpret_cast<void *>(client->client_hdl), selem->name);
    else
        DS_TRACE_IN(operation, DS_DELETED_SERVICE_ELEM_2, selem->name);
    ds_db_delete_service_element(selem);
}

} // namespace

extern "C" {

int ds_db_unpublish_service(uint32_t client_idx, ds_node_t *node, const ds_service_key_t *key,
                            const ds_dsr_service_ref_t *dsr_ref) {
    if (key == NULL || ds_db_context() == NULL) return -1;
    const uint32_t dsr_id = dsr_ref != NULL ? dsr_ref->id : 0;
    const char *name = key->service_name;
    if (name == NULL) {
        DS_TRACE(DS_DB_DELETE_SERVICE_INVALID_ARGS);
        return -1;
    }
    const char *instance = VIDL_PRESENT(key, DS_KEY_BIT_INSTANCE) ? key->instance : NULL;

    ds_client_t *client = NULL;
    if (node == ds_local_node()) {
        client = ds_db_find_client_by_client_idx(client_idx);
        if (client == NULL) {
            DS_TRACE(DS_DB_SERVICE_PUBLISHER_DELETE_NOT_FOUND, name);
            return -1;
        }
    }

    ds_service_elem_t *selem = NULL;
    ds_service_t *service = NULL;
    const int result =
        ds_db_find_service(name, instance, client_idx, key->scope, node, &selem, &service, dsr_id);
    if (result != 0) return result;
    if (selem != NULL && service != NULL) {
        ds_db_handle_service_down(service, client);
        return 0;
    }
    DS_TRACE(DS_DB_DELETE_SERVICE_NOTFOUND);
    return -1;
}

void ds_db_handle_service_down(ds_service_t *service, ds_client_t *client) {
    if (service == NULL || service->selem == NULL || ds_db_context() == NULL) return;
    if (ds_get_service_endpoint_count(service->publish_info) != 0)
        take_down_announced(service, client);
    else
        take_down_silent(service, client);
}
}
