// Dump responses: the database's statistics and its elements or clients, as records that point into
// the database. They are valid until it next changes; the arrays are the caller's.

#include "ds_trace.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr char source_file[] = "shared_pkg/common/infra/directory_service/common/src/ds_notify";
constexpr size_t client_name_bytes = sizeof(ds_client_t::name);

// A condition without which no dump can be given; ends the process as an assertion does.
void require(bool holds, const char *expression, unsigned line, const char *function) {
    if (holds) return;
    fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
            source_file, line, function, expression);
    fflush(stderr);
    abort();
}

uint64_t address_of(const void *object) {
    return reinterpret_cast<uint64_t>(object);
}

/* ---- service records of an element or a client ---- */

// What differs between the two fillers of service records.
struct service_fill {
    const char *function;
    int alloc_line;
    unsigned count_line;
    unsigned last_line;
};

bool is_wanted(const ds_service_t *service, const ds_dump_walk_ctx *ctx) {
    return !ds_is_placeholder(service) &&
           (ctx->node_filter == 0 || ctx->node_filter == address_of(service->node)) &&
           (ctx->scope_filter == DS_SCOPE_ANY || ctx->scope_filter == service->scope);
}

void fill_service(ds_dump_service_info *record, const ds_service_info_t *entry,
                  const ds_service_t *service) {
    VIDL_CLEAR(record);
    if (VIDL_PRESENT(entry, DS_SINFO_BIT_EP_TYPE))
        VIDL_SET(record, ep_type, DS_DSVC_BIT_EP_TYPE, entry->ep_type);
    VIDL_SET_BYTES(record, ep_addr, DS_DSVC_BIT_EP_ADDR, entry->ep_addr, entry->ep_addr_len);
    if (VIDL_PRESENT(entry, DS_SINFO_BIT_SCOPE))
        VIDL_SET(record, scope, DS_DSVC_BIT_SCOPE, entry->scope);
    if (VIDL_PRESENT(entry, DS_SINFO_BIT_ATTRS))
        VIDL_SET_ARRAY(record, attrs, DS_DSVC_BIT_ATTRS, entry->attrs, entry->attrs_count);
    VIDL_SET(record, service_name, DS_DSVC_BIT_SERVICE_NAME,
             address_of(service->selem == NULL ? NULL : service->selem->name));
    if (VIDL_PRESENT(entry, DS_SINFO_BIT_INSTANCE))
        VIDL_SET(record, instance, DS_DSVC_BIT_INSTANCE, entry->instance);
    const bool has_node = ds_node_is_record(service->node);
    VIDL_SET_BYTES(record, node_addr, DS_DSVC_BIT_NODE_ADDR, has_node ? service->node->addr : NULL,
                   has_node ? 6 : 0);
    VIDL_SET(record, service_id, DS_DSVC_BIT_SERVICE_ID, service->service_id);
    VIDL_SET(record, pid, DS_DSVC_BIT_PID, service->pid);
    VIDL_SET(record, proc_id, DS_DSVC_BIT_PROC_ID, service->proc_id);
    VIDL_SET(record, added_time, DS_DSVC_BIT_ADDED_TIME, service->added_time);
    VIDL_SET(record, update_time, DS_DSVC_BIT_UPDATE_TIME, service->update_time);
    VIDL_SET(record, last_relay_send_time, DS_DSVC_BIT_LAST_RELAY_SEND_TIME,
             service->last_relay_send_time);
}

// Fills one record per wanted service of a list. next walks the list; on_no_memory logs. The array
// and its length come back through the last two arguments, which stay untouched when the list is
// empty.
template <class Next, class OnNoMemory>
int fill_services(ds_service_t *head, Next next, const ds_dump_walk_ctx *ctx,
                  const service_fill &names, OnNoMemory on_no_memory, uint32_t *count,
                  ds_dump_service_info **records_out) {
    *count = 0;
    *records_out = NULL;
    for (ds_service_t *service = head; service != NULL; service = next(service))
        if (is_wanted(service, ctx)) *count += ds_get_service_endpoint_count(service->publish_info);
    if (*count == 0) return 0;
    ds_dump_service_info *records =
        static_cast<ds_dump_service_info *>(calloc(*count, sizeof(ds_dump_service_info)));
    if (records == NULL) {
        on_no_memory();
        *count = 0;
        return -1;
    }
    uint32_t last = 0;
    for (ds_service_t *service = head; service != NULL; service = next(service)) {
        if (!is_wanted(service, ctx)) continue;
        require(ds_get_service_endpoint_count(service->publish_info) == 1, "count == 1",
                names.count_line, names.function);
        fill_service(&records[last++], &service->publish_info->entries[0], service);
    }
    require(*count == last, "*sinfo_count == last", names.last_line, names.function);
    *records_out = records;
    return 0;
}

/* ---- registration entries of an element or a client ---- */

void fill_registration(vidl_ds_client_reg_entry *entry, const ds_client_reg_t *reg) {
    VIDL_CLEAR(entry);
    VIDL_SET(entry, pid, DS_REGE_BIT_PID, static_cast<uint32_t>(ds_client_pid(reg->client)));
    VIDL_SET(entry, service_name, DS_REGE_BIT_SERVICE_NAME, address_of(reg->selem->name));
    VIDL_SET(entry, client_name, DS_REGE_BIT_CLIENT_NAME, reg->client->name);
    VIDL_SET(entry, created_time, DS_REGE_BIT_CREATED_TIME, reg->created_time);
    VIDL_SET(entry, last_notif_time, DS_REGE_BIT_LAST_NOTIF_TIME, reg->last_notif_time);
    VIDL_SET(entry, nnotifs, DS_REGE_BIT_NNOTIFS, reg->nnotifs);
}

// As fill_services, for registrations; no filter applies. The count is added to.
template <class Next, class OnNoMemory>
int fill_registrations(ds_client_reg_t *head, Next next, OnNoMemory on_no_memory, uint32_t *count,
                       vidl_ds_client_reg_entry **entries_out) {
    *entries_out = NULL;
    for (ds_client_reg_t *reg = head; reg != NULL; reg = next(reg))
        (*count)++;
    if (*count == 0) return 0;
    vidl_ds_client_reg_entry *entries =
        static_cast<vidl_ds_client_reg_entry *>(calloc(*count, sizeof(vidl_ds_client_reg_entry)));
    if (entries == NULL) {
        on_no_memory();
        *count = 0;
        return -1;
    }
    vidl_ds_client_reg_entry *entry = entries;
    for (ds_client_reg_t *reg = head; reg != NULL; reg = next(reg))
        fill_registration(entry++, reg);
    *entries_out = entries;
    return 0;
}

/* ---- element and client records ---- */

void clear_element_record(ds_dump_selem_info *record, const ds_service_elem_t *selem) {
    VIDL_CLEAR(record);
    VIDL_SET(record, name, DS_DSEL_BIT_NAME, selem->name);
    VIDL_SET_ARRAY(record, service_infos, DS_DSEL_BIT_SERVICE_INFOS, NULL, 0);
    VIDL_SET_ARRAY(record, reg_entries, DS_DSEL_BIT_REG_ENTRIES, NULL, 0);
    VIDL_SET(record, last_add_time, DS_DSEL_BIT_LAST_ADD_TIME, selem->last_add_time);
    VIDL_SET(record, last_delete_time, DS_DSEL_BIT_LAST_DELETE_TIME, selem->last_delete_time);
    VIDL_SET(record, last_modify_time, DS_DSEL_BIT_LAST_MODIFY_TIME, selem->last_modify_time);
    VIDL_SET(record, last_reg_time, DS_DSEL_BIT_LAST_REG_TIME, selem->last_reg_time);
    VIDL_SET(record, last_unreg_time, DS_DSEL_BIT_LAST_UNREG_TIME, selem->last_unreg_time);
    VIDL_SET(record, local_services_added, DS_DSEL_BIT_LOCAL_SERVICES_ADDED,
             selem->local_services_added);
    VIDL_SET(record, remote_services_added, DS_DSEL_BIT_REMOTE_SERVICES_ADDED,
             selem->remote_services_added);
    VIDL_SET(record, local_services_deleted, DS_DSEL_BIT_LOCAL_SERVICES_DELETED,
             selem->local_services_deleted);
    VIDL_SET(record, remote_services_deleted, DS_DSEL_BIT_REMOTE_SERVICES_DELETED,
             selem->remote_services_deleted);
    // The two update counts stay absent.
    VIDL_SET(record, registrations_added, DS_DSEL_BIT_REGISTRATIONS_ADDED,
             selem->registrations_added);
    VIDL_SET(record, registrations_deleted, DS_DSEL_BIT_REGISTRATIONS_DELETED,
             selem->registrations_deleted);
    VIDL_SET(record, nnotifs, DS_DSEL_BIT_NNOTIFS, selem->nnotifs);
    VIDL_SET(record, remote_change_count, DS_DSEL_BIT_REMOTE_CHANGE_COUNT,
             selem->remote_change_count);
    VIDL_SET(record, relay_updates_sent, DS_DSEL_BIT_RELAY_UPDATES_SENT, selem->relay_updates_sent);
}

void fill_element(ds_service_elem_t *selem, ds_dump_selem_info *record, ds_dump_walk_ctx *ctx,
                  uint32_t *services, uint32_t *registrations) {
    if (ctx->name_filter != NULL && strcmp(ctx->name_filter, selem->name) != 0) return;
    clear_element_record(record, selem);
    if ((ctx->request_flags & DS_DUMP_REQ_SERVICES) != 0) {
        if (ds_fill_services(selem, record, ctx, services) == 0 && *services != 0)
            ds_fill_service_registrations(selem, record, ctx, registrations);
    } else if ((ctx->request_flags & DS_DUMP_REQ_REGISTRATIONS) != 0) {
        ds_fill_service_registrations(selem, record, ctx, registrations);
    }
}

int visit_element(void *element, void *arg) {
    ds_dump_walk_ctx *ctx = static_cast<ds_dump_walk_ctx *>(arg);
    if (element == NULL || ctx == NULL || ctx->next_index >= ctx->capacity) return 0;
    uint32_t services = 0;
    uint32_t registrations = 0;
    fill_element(static_cast<ds_service_elem_t *>(element), &ctx->selem_infos[ctx->next_index], ctx,
                 &services, &registrations);
    // An element with nothing to show leaves its record to the next one.
    if (services != 0 || registrations != 0) ctx->next_index++;
    return 1;
}

void fill_client(ds_client_t *client, ds_dump_client_info *record, ds_dump_walk_ctx *ctx) {
    VIDL_CLEAR(record);
    VIDL_SET(record, client_name, DS_DCLI_BIT_CLIENT_NAME, address_of(client->name));
    VIDL_SET(record, pid, DS_DCLI_BIT_PID, static_cast<uint32_t>(ds_client_pid(client)));
    VIDL_SET(record, services_published, DS_DCLI_BIT_SERVICES_PUBLISHED,
             client->services_published);
    VIDL_SET(record, services_updated, DS_DCLI_BIT_SERVICES_UPDATED, client->services_updated);
    VIDL_SET(record, services_deleted, DS_DCLI_BIT_SERVICES_DELETED, client->services_deleted);
    VIDL_SET(record, last_activity_time, DS_DCLI_BIT_LAST_ACTIVITY_TIME,
             client->last_activity_time);
    VIDL_SET(record, registrations_added, DS_DCLI_BIT_REGISTRATIONS_ADDED,
             client->registrations_added);
    VIDL_SET(record, registrations_deleted, DS_DCLI_BIT_REGISTRATIONS_DELETED,
             client->registrations_deleted);
    VIDL_SET(record, nnotifs, DS_DCLI_BIT_NNOTIFS, client->nnotifs);
    uint32_t services = 0;
    ds_fill_client_services(client, record, ctx, &services);
    uint32_t registrations = 0;
    ds_fill_client_registrations(client, record, ctx, &registrations);
}

void *visit_client(ds_client_t *client, void *arg) {
    ds_dump_walk_ctx *ctx = static_cast<ds_dump_walk_ctx *>(arg);
    if (client == NULL || ctx == NULL || ctx->next_index >= ctx->capacity) return ctx;
    if (ctx->name_filter != NULL && strncmp(ctx->name_filter, client->name, client_name_bytes) != 0)
        return ctx;
    fill_client(client, &ctx->client_infos[ctx->next_index], ctx);
    ctx->next_index++;
    return ctx;
}

/* ---- the response ---- */

void fill_statistics(ds_dump_resp_info *resp, const ds_db_t *db) {
    VIDL_SET(resp, clients_added, DS_RESP_BIT_CLIENTS_ADDED, db->clients_added);
    VIDL_SET(resp, clients_deleted, DS_RESP_BIT_CLIENTS_DELETED, db->clients_deleted);
    VIDL_SET(resp, last_client_add_time, DS_RESP_BIT_LAST_CLIENT_ADD_TIME,
             db->last_client_add_time);
    VIDL_SET(resp, last_client_delete_time, DS_RESP_BIT_LAST_CLIENT_DELETE_TIME,
             db->last_client_delete_time);
    VIDL_SET(resp, local_services_added, DS_RESP_BIT_LOCAL_SERVICES_ADDED,
             db->local_services_added);
    VIDL_SET(resp, remote_services_added, DS_RESP_BIT_REMOTE_SERVICES_ADDED,
             db->remote_services_added);
    VIDL_SET(resp, local_services_updated, DS_RESP_BIT_LOCAL_SERVICES_UPDATED,
             db->local_services_updated);
    VIDL_SET(resp, remote_services_updated, DS_RESP_BIT_REMOTE_SERVICES_UPDATED,
             db->remote_services_updated);
    VIDL_SET(resp, local_services_deleted, DS_RESP_BIT_LOCAL_SERVICES_DELETED,
             db->local_services_deleted);
    VIDL_SET(resp, remote_services_deleted, DS_RESP_BIT_REMOTE_SERVICES_DELETED,
             db->remote_services_deleted);
    VIDL_SET(resp, registrations_added, DS_RESP_BIT_REGISTRATIONS_ADDED, db->registrations_added);
    VIDL_SET(resp, registrations_deleted, DS_RESP_BIT_REGISTRATIONS_DELETED,
             db->registrations_deleted);
    VIDL_SET(resp, nnotifs, DS_RESP_BIT_NNOTIFS, db->nnotifs);
    VIDL_SET(resp, relay_updates_sent, DS_RESP_BIT_RELAY_UPDATES_SENT, db->relay_updates_sent);
    VIDL_SET(resp, relay_adds_sent, DS_RESP_BIT_RELAY_ADDS_SENT, db->relay_adds_sent);
    VIDL_SET(resp, relay_deletes_sent, DS_RESP_BIT_RELAY_DELETES_SENT, db->relay_deletes_sent);
    VIDL_SET(resp, relay_modifies_sent, DS_RESP_BIT_RELAY_MODIFIES_SENT, db->relay_modifies_sent);
    VIDL_SET(resp, relay_updates_received, DS_RESP_BIT_RELAY_UPDATES_RECEIVED,
             db->relay_updates_received);
    VIDL_SET(resp, relay_spare_counter, DS_RESP_BIT_RELAY_SPARE_COUNTER, db->relay_spare_counter);
}

uint32_t count_elements(const char *service_name, const uint8_t *ethaddr, uint32_t scope,
                        ds_dump_walk_ctx *ctx) {
    if ((ctx->request_flags & DS_DUMP_REQ_SERVICES) == 0)
        return ds_db_get_registered_service_count(service_name);
    if (ethaddr == NULL) return ds_db_get_published_service_count(service_name, scope);
    ctx->node_filter = platform_get_nodeid_from_ethaddr(ethaddr);
    return ds_db_get_remote_published_service_count(
        service_name, reinterpret_cast<ds_node_t *>(ctx->node_filter), scope);
}

} // namespace

extern "C" {

int ds_fill_services(ds_service_elem_t *selem, ds_dump_selem_info *selem_info,
                     ds_dump_walk_ctx *walk_ctx, uint32_t *count) {
    if (selem == NULL || selem_info == NULL || walk_ctx == NULL || count == NULL) return -1;
    *count = 0;
    ds_service_t *head = ds_service_get_service_list_head(selem);
    if (head == NULL) return -1;
    const char *function = __func__;
    ds_dump_service_info *records = NULL;
    const int result = fill_services(
        head, ds_service_get_next_in_service_list, walk_ctx, {function, 383, 399, 413},
        [=] { DS_TRACE_IN(function, DS_DUMP_MSG_ERR, function, 383); }, count, &records);
    VIDL_SET_ARRAY(selem_info, service_infos, DS_DSEL_BIT_SERVICE_INFOS, records, *count);
    return result;
}

int ds_fill_client_services(ds_client_t *client, ds_dump_client_info *client_info,
                            ds_dump_walk_ctx *walk_ctx, uint32_t *count) {
    if (client == NULL || client_info == NULL || walk_ctx == NULL || count == NULL) return -1;
    *count = 0;
    ds_service_t *head = ds_client_get_service_list_head(client);
    if (head == NULL) return -1;
    const char *function = __func__;
    ds_dump_service_info *records = NULL;
    const int result = fill_services(
        head, ds_client_get_next_in_service_list, walk_ctx, {function, 302, 318, 332},
        [=] { DS_TRACE_IN(function, DS_DUMP_CLIENT_MSG_ERR, function, 302); }, count, &records);
    VIDL_SET_ARRAY(client_info, service_infos, DS_DCLI_BIT_SERVICE_INFOS, records, *count);
    return result;
}

int ds_fill_service_registrations(ds_service_elem_t *selem, ds_dump_selem_info *selem_info,
                                  ds_dump_walk_ctx *walk_ctx, uint32_t *count) {
    if (selem == NULL || selem_info == NULL || walk_ctx == NULL || count == NULL) return -1;
    ds_client_reg_t *head = ds_service_get_client_reg_list_head(selem);
    if (head == NULL) return -1;
    const char *function = __func__;
    vidl_ds_client_reg_entry *entries = NULL;
    const int result = fill_registrations(
        head, ds_service_get_next_in_client_reg_list,
        [=] { DS_TRACE_IN(function, DS_DUMP_MSG_ERR_1, function, 179); }, count, &entries);
    VIDL_SET_ARRAY(selem_info, reg_entries, DS_DSEL_BIT_REG_ENTRIES, entries, *count);
    return result;
}

int ds_fill_client_registrations(ds_client_t *client, ds_dump_client_info *client_info,
                                 ds_dump_walk_ctx *walk_ctx, uint32_t *count) {
    if (client == NULL || client_info == NULL || walk_ctx == NULL || count == NULL) return -1;
    ds_client_reg_t *head = ds_client_get_client_reg_list_head(client);
    if (head == NULL) return -1;
    const char *function = __func__;
    vidl_ds_client_reg_entry *entries = NULL;
    const int result = fill_registrations(
        head, ds_client_get_next_in_client_reg_list,
        [=] { DS_TRACE_IN(function, DS_FILL_CLIENT_REG_ERR_1, function, 235); }, count, &entries);
    VIDL_SET_ARRAY(client_info, reg_entries, DS_DCLI_BIT_REG_ENTRIES, entries, *count);
    return result;
}

int ds_prepare_dump_resp_info(const char *service_name, const uint8_t *ethaddr, uint32_t scope,
                              ds_dump_resp_info *resp, uint32_t *selem_count_out,
                              uint32_t *client_count_out) {
    if (resp == NULL || selem_count_out == NULL || client_count_out == NULL) return -1;
    *selem_count_out = 0;
    *client_count_out = 0;
    ds_db_t *db = ds_db_context();
    if (db == NULL) return -1;
    if (service_name != NULL)
        VIDL_SET(resp, service_name, DS_RESP_BIT_SERVICE_NAME, const_cast<char *>(service_name));
    ds_dump_walk_ctx ctx = {};
    ctx.request_flags = resp->request_flags;
    ctx.name_filter = service_name;
    fill_statistics(resp, db);

    if ((ctx.request_flags & (DS_DUMP_REQ_SERVICES | DS_DUMP_REQ_REGISTRATIONS)) != 0)
        *selem_count_out = count_elements(service_name, ethaddr, scope, &ctx);
    else if ((ctx.request_flags & DS_DUMP_REQ_CLIENTS) != 0)
        *client_count_out = ds_db_get_client_count(service_name);

    if (*selem_count_out != 0) {
        ctx.selem_infos =
            static_cast<ds_dump_selem_info *>(calloc(*selem_count_out, sizeof(ds_dump_selem_info)));
        require(ctx.selem_infos != NULL, "info != NULL", 658, __func__);
        ctx.capacity = *selem_count_out;
        ctx.scope_filter = scope;
        avl_walk(&db->selem_tree, visit_element, &ctx);
        VIDL_SET_ARRAY(resp, selem_infos, DS_RESP_BIT_SELEM_INFOS, ctx.selem_infos, ctx.next_index);
    }
    if (*client_count_out != 0) {
        ctx.client_infos = static_cast<ds_dump_client_info *>(
            calloc(*client_count_out, sizeof(ds_dump_client_info)));
        require(ctx.client_infos != NULL, "cinfo != NULL", 677, __func__);
        ctx.capacity = *client_count_out;
        ctx.scope_filter = DS_SCOPE_ANY;
        ds_db_client_iter(visit_client, &ctx);
        VIDL_SET_ARRAY(resp, client_infos, DS_RESP_BIT_CLIENT_INFOS, ctx.client_infos,
                       ctx.next_index);
    }
    return 0;
}
}
