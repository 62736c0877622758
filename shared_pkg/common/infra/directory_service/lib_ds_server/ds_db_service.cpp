// Service records: one published instance each, and the publish info that each holds.

#include "ds_db_lock.h"
#include "ds_trace.h"

#include <stdlib.h>
#include <string.h>

namespace {

bool is_local(const ds_service_t *service) {
    return service->node == ds_local_node();
}

bool is_linked(const dbly_linkage_t *linkage) {
    return linkage->next != NULL || linkage->prev != NULL;
}

bool same_bytes(const uint8_t *a, uint64_t a_bytes, const uint8_t *b, uint64_t b_bytes) {
    return a_bytes == b_bytes && (a_bytes == 0 || memcmp(a, b, a_bytes) == 0);
}

void count_add(ds_db_t *db, const ds_service_t *service) {
    ds_service_elem_t *selem = service->selem;
    if (!is_local(service)) {
        selem->remote_change_count++;
        selem->remote_services_added++;
        db->remote_services_added++;
    } else if (!ds_is_placeholder(service)) {
        selem->local_services_added++;
        db->local_services_added++;
    }
}

void count_update(ds_db_t *db, const ds_service_t *service) {
    ds_service_elem_t *selem = service->selem;
    if (ds_is_placeholder(service)) return;
    if (is_local(service)) {
        selem->local_services_updated++;
        db->local_services_updated++;
    } else {
        selem->remote_change_count++;
        selem->remote_services_updated++;
        db->remote_services_updated++;
    }
}

void count_delete(ds_db_t *db, const ds_service_t *service) {
    ds_service_elem_t *selem = service->selem;
    if (is_local(service)) {
        selem->local_services_deleted++;
        db->local_services_deleted++;
    } else {
        selem->remote_services_deleted++;
        selem->remote_change_count++;
        db->remote_services_deleted++;
    }
}

// A deletion that the element's version and every counter show; placeholders go without.
void account_for_deletion(ds_db_t *db, ds_service_t *service, ds_client_t *client) {
    ds_service_elem_t *selem = service->selem;
    const uint64_t now = fts_get_stamp_fast();
    selem->selem_version++;
    selem->last_delete_time = now;
    selem->last_modify_time = now;
    count_delete(db, service);
    if (client != NULL) {
        client->services_deleted++;
        client->last_activity_time = now;
    }
    if (ds_node_is_record(service->node)) {
        service->node->services_deleted++;
        service->node->last_change_time = now;
    }
}

// Undoes ds_publish_info_hold: the caller owns its info again.
void give_back(ds_service_publish_info *held, ds_service_publish_info *info) {
    if (held != info) free(held);
    info->held = 0;
}

} // namespace

extern "C" {

ds_service_publish_info *ds_publish_info_hold(ds_service_publish_info *info) {
    if (info == NULL) return NULL;
    if (info->borrowed == 0) {
        info->held = 1;
        return info;
    }
    // Only the top level is copied; names and entries change hands.
    ds_service_publish_info *copy =
        static_cast<ds_service_publish_info *>(malloc(sizeof(ds_service_publish_info)));
    if (copy == NULL) return NULL;
    info->held = 1;
    *copy = *info;
    copy->borrowed = 0;
    return copy;
}

void ds_publish_info_release(ds_service_publish_info *info) {
    if (info == NULL) return;
    vidl_ds_service_publish_info_free_ext(info, free, 0);
    if (info->borrowed == 0) free(info);
}

int ds_db_init_service(uint32_t proc_id, ds_node_t *node, ds_service_publish_info *publish_info,
                       uint64_t name_hash, ds_service_t **service_out, ds_client_t *client,
                       ds_service_elem_t *selem, uint32_t service_id) {
    ds_db_t *db = ds_db_context();
    if (publish_info == NULL || service_out == NULL || selem == NULL || db == NULL) return -1;
    ds_service_t *service = static_cast<ds_service_t *>(chunk_malloc(db->service_pool));
    if (service == NULL) return -1;
    memset(service, 0, sizeof *service);
    service->service_id = service_id != 0 ? service_id : db->next_service_id++;
    service->proc_id = proc_id;
    service->pid = client != NULL ? static_cast<uint32_t>(ds_client_pid(client)) : proc_id;
    service->node = node;
    {
        ds_db_lock lock(db);
        service->publish_info = ds_publish_info_hold(publish_info);
    }
    service->name_hash = name_hash;
    service->selem = selem;
    service->scope = ds_get_scope(publish_info);
    const char *instance = ds_get_instance(publish_info);
    if (instance != NULL) service->instance = ds_copy_text(instance, strlen(instance));

    if (service->publish_info == NULL) {
        DS_TRACE(DS_SERVICE_INIT_PUBLISH_INFO_DUP, ds_text(publish_info->service_name));
        chunk_free(db->service_pool, service);
        return -1;
    }
    if (instance != NULL && service->instance == NULL) {
        give_back(service->publish_info, publish_info);
        chunk_free(db->service_pool, service);
        return -1;
    }
    service->gen = 1;
    *service_out = service;
    return 0;
}

int ds_db_free_service(ds_service_t *service) {
    ds_db_t *db = ds_db_context();
    if (service == NULL || db == NULL) return 0;
    ds_publish_info_release(service->publish_info);
    service->publish_info = NULL;
    // A placeholder stands in no client's list, unless a client has just taken it over.
    if (!ds_is_placeholder(service) || is_linked(&service->client_link))
        dbly_linkage_delink(&service->client_link);
    dbly_linkage_delink(&service->selem_link);
    chunk_free(db->service_pool, service);
    return 0;
}

void ds_db_drop_service(ds_service_t *service) {
    if (service == NULL) return;
    char *instance = service->instance;
    ds_db_free_service(service);
    free(instance);
}

int ds_db_add_service(ds_service_t *service, ds_client_t *client) {
    ds_db_t *db = ds_db_context();
    if (service == NULL || db == NULL) return -1;
    ds_db_lock lock(db);
    ds_service_elem_t *selem = service->selem;
    if (selem == NULL) return -1;
    dbly_linkage_link(&selem->service_list, &service->selem_link);
    selem->selem_version++;
    service->added_time = fts_get_stamp_fast();
    selem->last_add_time = service->added_time;
    count_add(db, service);
    if (client != NULL) {
        dbly_linkage_link(&client->service_list, &service->client_link);
        client->services_published++;
        client->last_activity_time = service->added_time;
    }
    if (!ds_is_placeholder(service) && ds_node_is_record(service->node)) {
        service->node->services_added++;
        service->node->last_change_time = service->added_time;
    }
    return 0;
}

int ds_db_update_service(ds_service_t *service, ds_service_publish_info *publish_info,
                         ds_client_t *client) {
    ds_db_t *db = ds_db_context();
    if (service == NULL || publish_info == NULL || db == NULL) return -1;
    ds_service_elem_t *selem = service->selem;
    if (selem == NULL) return 0;
    ds_service_publish_info *taken = ds_publish_info_hold(publish_info);
    if (taken == NULL) {
        DS_TRACE(DS_SERVICE_PUB_PUBLISH_INFO_DUP, selem->name);
        return -1;
    }

    ds_db_lock lock(db);
    if (service->publish_info != taken) ds_publish_info_release(service->publish_info);
    service->publish_info = taken;
    service->gen++;
    service->update_time = fts_get_stamp_fast();
    selem->selem_version++;
    selem->last_modify_time = service->update_time;
    count_update(db, service);
    if (client != NULL) {
        client->services_updated++;
        client->last_activity_time = service->update_time;
    }
    if (!ds_is_placeholder(service)) {
        if (ds_node_is_record(service->node)) {
            service->node->services_updated++;
            service->node->last_change_time = service->update_time;
        }
    } else if (client != NULL) {
        DS_TRACE(DS_SERVICE_PUB_PUBLISH_INFO_LINK, reinterpret_cast<void *>(client->client_hdl));
        if (is_linked(&service->client_link)) dbly_linkage_delink(&service->client_link);
        dbly_linkage_link(&client->service_list, &service->client_link);
    }
    return 0;
}

int ds_db_delete_service(ds_service_t *service, ds_client_t *client) {
    ds_db_t *db = ds_db_context();
    if (service == NULL) return 0;
    if (db == NULL) return -1;
    ds_db_lock lock(db);
    if (!ds_is_placeholder(service) && service->selem != NULL)
        account_for_deletion(db, service, client);
    ds_db_drop_service(service);
    return 0;
}

int ds_db_service_endpoints_equal(ds_service_t *service, ds_service_publish_info *publish_info) {
    if (service == NULL || service->publish_info == NULL || publish_info == NULL) return 0;
    ds_service_publish_info *own = service->publish_info;
    const uint32_t count = ds_get_service_endpoint_count(own);
    if (count == 0 || count != ds_get_service_endpoint_count(publish_info)) return 0;
    for (uint32_t i = 0; i < count; i++) {
        const ds_service_info_t *a = &own->entries[i];
        const ds_service_info_t *b = &publish_info->entries[i];
        if (a->ep_type != b->ep_type ||
            !same_bytes(a->ep_addr, a->ep_addr_len, b->ep_addr, b->ep_addr_len))
            return 0;
    }
    return 1;
}
}
