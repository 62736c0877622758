// The end of a restart period: every marked service is kept and announced, withdrawn, or removed.

#include "ds_trace.h"

namespace {

constexpr char operation[] = "ds_db_resolve_service_element"; // what the console names

// What the end of the period means for one service.
enum class fate {
    keep,     // leave alone, flags too
    reset,    // nothing came of the period: forget the marks
    announce, // a client published it in the period: tell the relay
    withdraw, // the relay knew it, no client published it again
    drop,     // remote and never replayed
    appear    // remote, and entered in the period
};

fate fate_of_local(const ds_service_t *service) {
    if (!ds_is_replicated(ds_get_scope(service->publish_info))) return fate::keep;
    if ((service->flags & DS_SERVICE_FLAG_RECONCILE) != 0) return fate::announce;
    if ((service->flags & DS_SERVICE_FLAG_DSR_CONFIRMED) != 0) return fate::withdraw;
    return fate::reset;
}

fate fate_of_remote(const ds_service_t *service) {
    if (service->flags == DS_SERVICE_FLAG_RECONCILE) return fate::drop;
    if (service->flags == DS_SERVICE_FLAG_DSR_CONFIRMED) return fate::appear;
    // Entered by a replay, marked by a second disconnect and replayed again: nobody was told of it
    // yet.
    if (ds_is_placeholder(service) && (service->flags & DS_SERVICE_FLAG_DSR_CONFIRMED) != 0)
        return fate::appear;
    return fate::reset;
}

// Settles one local service; tells whether clients will see a difference.
bool settle_local(ds_service_t *service, ds_service_elem_t *selem) {
    const fate what = fate_of_local(service);
    if (what == fate::keep) return false;
    const char *scope = ds_scope_name(ds_get_scope(service->publish_info));
    const char *node = ds_node_name(service->node);
    if (what == fate::announce) {
        DS_TRACE_IN(operation, DS_RESOLVE_SERVICE_UP, selem->name, scope, service->gen,
                    selem->selem_version, node, service->proc_id, service->pid);
        if (ds_is_placeholder(service)) service->proc_id = service->pid;
        ds_remote_notify(service, DS_REMOTE_PUBLISHED);
        service->flags = 0;
        return true;
    }
    if (what == fate::withdraw) {
        DS_TRACE_IN(operation, DS_RESOLVE_SERVICE_DOWN, selem->name, scope, service->gen,
                    selem->selem_version, node, ds_text(service->publish_info->service_name),
                    service->proc_id);
        service->proc_id = service->pid;
        ds_remote_notify(service, DS_REMOTE_WITHDRAWN);
        ds_db_drop_service(service);
        return true;
    }
    DS_TRACE_IN(operation, DS_RESOLVE_SERVICE_RESET, selem->name, scope, service->gen,
                selem->selem_version, node, service->proc_id, service->pid);
    service->flags = 0;
    return false;
}

// Settles one remote service; tells whether clients will see a difference.
bool settle_remote(ds_service_t *service, ds_service_elem_t *selem) {
    const fate what = fate_of_remote(service);
    const char *scope = ds_scope_name(ds_get_scope(service->publish_info));
    const char *node = ds_node_name(service->node);
    if (what == fate::drop) {
        DS_TRACE_IN(operation, DS_RESOLVE_REMOTE_SERVICE_DOWN, selem->name, scope, service->gen,
                    selem->selem_version, node);
        ds_db_drop_service(service);
        return true;
    }
    if (what == fate::appear) {
        DS_TRACE_IN(operation, DS_RESOLVE_REMOTE_SERVICE_UP, selem->name, scope, service->gen,
                    selem->selem_version, node, ds_text(service->publish_info->service_name),
                    service->proc_id);
        service->proc_id = service->pid;
        trace_service_info(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
        service->flags = 0;
        return true;
    }
    DS_TRACE_IN(operation, DS_RESOLVE_REMOTE_SERVICE_RESET, selem->name, scope, service->gen,
                selem->selem_version, node);
    service->flags = 0;
    return false;
}

} // namespace

extern "C" {

int ds_db_dsr_restarted(void) {
    ds_db_t *db = ds_db_context();
    if (db == NULL) return -1;
    DS_TRACE(DS_DB_DSR_RESTARTED);
    avl_walk(&db->selem_tree, ds_db_mark_remote_services, NULL);
    return 0;
}

int ds_db_finalize_restart(void) {
    ds_db_t *db = ds_db_context();
    if (db == NULL) return -1;
    DS_TRACE(DS_DB_FINALIZE_DS_RESTART);
    avl_walk(&db->selem_tree, ds_db_resolve_service_element, ds_local_node());
    return 0;
}

int ds_db_resolve_service_element(void *element, void *local_node) {
    ds_service_elem_t *selem = static_cast<ds_service_elem_t *>(element);
    bool is_changed = false;
    ds_service_t *next = NULL;
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = next) {
        next = ds_service_get_next_in_service_list(service);
        const bool is_local = service->node == local_node;
        is_changed |= is_local ? settle_local(service, selem) : settle_remote(service, selem);
    }
    if (is_changed) {
        selem->selem_version++;
        ds_notify(selem);
    }
    return 1;
}
}
