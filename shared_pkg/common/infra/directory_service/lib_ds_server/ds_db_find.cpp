// The match rule, and the walk over every service.

#include "ds_internal.h"

#include <string.h>

namespace {

struct wanted_service {
    const char *instance; // null = any
    size_t instance_length;
    uint32_t proc_id;    // 0 = any
    uint32_t scope;      // 0 = any
    ds_node_t *node;     // 0 = any
    uint32_t service_id; // 0 = any
};

// The wanted instance is compared over its own length: it matches every instance that begins with
// it.
bool instance_matches(const ds_service_t *service, const wanted_service &wanted) {
    return wanted.instance == NULL ||
           (service->instance != NULL &&
            strncmp(wanted.instance, service->instance, wanted.instance_length) == 0);
}

// A placeholder belongs to nobody and matches every process, but for the relay restart period, in
// which its process is known from the replay.
bool process_matches(const ds_service_t *service, const wanted_service &wanted) {
    if (wanted.proc_id == 0) return true;
    if (!ds_is_placeholder(service)) return service->proc_id == wanted.proc_id;
    return !ds_timer_running(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER) || service->pid == wanted.proc_id;
}

bool scope_matches(const ds_service_t *service, const wanted_service &wanted) {
    if (wanted.proc_id == 0 && wanted.node == NULL) return true;
    return wanted.scope == DS_SCOPE_NONE || service->scope == wanted.scope;
}

bool matches(const ds_service_t *service, const wanted_service &wanted) {
    return instance_matches(service, wanted) && process_matches(service, wanted) &&
           (wanted.node == NULL || service->node == wanted.node) &&
           (wanted.service_id == 0 || service->service_id == wanted.service_id) &&
           scope_matches(service, wanted);
}

struct service_walk {
    ds_service_iter_fn fn;
    void *ctx;
};

int visit_services(void *selem, void *arg) {
    const service_walk *walk = static_cast<const service_walk *>(arg);
    ds_service_t *next = NULL;
    for (ds_service_t *service =
             ds_service_get_service_list_head(static_cast<ds_service_elem_t *>(selem));
         service != NULL; service = next) {
        next = ds_service_get_next_in_service_list(
            service); // fn may delete the service, and its element
        walk->fn(service, walk->ctx);
    }
    return 1;
}

} // namespace

extern "C" {

int ds_db_find_service(const char *name, const char *instance, uint32_t proc_id, uint32_t scope,
                       ds_node_t *node, ds_service_elem_t **selem_out, ds_service_t **service_out,
                       uint32_t service_id) {
    ds_db_t *db = ds_db_context();
    if (name == NULL || selem_out == NULL || service_out == NULL || db == NULL ||
        db->selem_tree.count == 0)
        return 0;
    ds_db_find_service_element(name, selem_out);
    const wanted_service wanted = {
        instance, instance == NULL ? 0 : strlen(instance), proc_id, scope, node, service_id};
    for (ds_service_t *service = ds_service_get_service_list_head(*selem_out); service != NULL;
         service = ds_service_get_next_in_service_list(service)) {
        if (matches(service, wanted)) {
            *service_out = service;
            break;
        }
    }
    return 0;
}

int ds_db_services_iter(ds_service_iter_fn fn, void *ctx) {
    ds_db_t *db = ds_db_context();
    if (fn == NULL || db == NULL) return -1;
    service_walk walk = {fn, ctx};
    return avl_walk(&db->selem_tree, visit_services, &walk);
}
}
