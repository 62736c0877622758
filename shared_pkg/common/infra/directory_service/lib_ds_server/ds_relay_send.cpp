// Outbound replication: one service record becomes one relay update.

#include "ds_trace.h"

#include <stdlib.h>

namespace {

constexpr uint32_t attr_bytes_max = 536; // an encoded attribute is never longer

bool is_relay_connected() {
    const ds_globals_t *block = ds_globals_get();
    return block != NULL &&
           *reinterpret_cast<const uint8_t *>(&block->slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) != 0;
}

// DSR_NOOP when there is nothing to tell: the relay never heard of a service that is withdrawn.
uint32_t choose_operation(const ds_service_t *service, uint32_t request) {
    if (request == DS_REMOTE_WITHDRAWN) return service->prev_ver == 0 ? DSR_NOOP : DSR_DELETE;
    if (request == DS_REMOTE_PUBLISHED && service->prev_ver != 0) return DSR_MODIFY;
    return DSR_ADD;
}

void count_send(ds_service_t *service, uint32_t operation) {
    ds_db_t *db = ds_db_context();
    if (db != NULL) {
        switch (operation) {
        case DSR_ADD:
            db->relay_adds_sent++;
            break;
        case DSR_MODIFY:
            db->relay_modifies_sent++;
            break;
        default:
            db->relay_deletes_sent++;
            break;
        }
        db->relay_updates_sent++;
    }
    service->selem->relay_updates_sent++;
}

// Returns the encoding in a buffer of its own, null when memory ran out. A list that the encoder
// refuses goes out empty.
void *encode_attributes(const ds_service_info_t *entry, uint32_t &bytes_out) {
    ds_service_attrs_t attrs;
    VIDL_CLEAR(&attrs);
    VIDL_SET_ARRAY(&attrs, attrs, DS_ATTRS_BIT_ATTRS, entry->attrs, entry->attrs_count);
    const size_t capacity = static_cast<size_t>(attr_bytes_max) * entry->attrs_count;
    void *buffer = malloc(capacity == 0 ? 1 : capacity);
    if (buffer == NULL) return NULL;
    const uint32_t room = capacity > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(capacity);
    const int32_t length = vidl_ds_service_attrs_encode_ext(&attrs, buffer, room, 0, 0, 0);
    bytes_out =
        length < 0 || static_cast<uint32_t>(length) > room ? 0 : static_cast<uint32_t>(length);
    return buffer;
}

void *send_as_addition(ds_service_t *service, void *unused) {
    (void)unused;
    if (service == NULL || ds_get_service_endpoint_count(service->publish_info) == 0) return NULL;
    const uint32_t scope = ds_get_scope(service->publish_info);
    if (service->node == ds_local_node() && ds_is_replicated(scope)) {
        service->prev_ver = 0;
        ds_remote_notify(service, DS_REMOTE_PUBLISHED);
    }
    return NULL;
}

} // namespace

extern "C" {

int ds_remote_notify(ds_service_t *service, uint32_t request) {
    if (service == NULL || service->selem == NULL || !is_relay_connected()) return 0;
    const uint32_t operation = choose_operation(service, request);
    if (operation == DSR_NOOP) return 0;
    if (ds_get_service_endpoint_count(service->publish_info) == 0) return 0;

    const ds_service_info_t *entry = &service->publish_info->entries[0];
    const char *name = service->publish_info->service_name;
    const char *instance = VIDL_PRESENT(entry, DS_SINFO_BIT_INSTANCE) ? entry->instance : NULL;
    uint32_t attr_bytes = 0;
    void *attrs = encode_attributes(entry, attr_bytes);
    if (attrs == NULL) {
        DS_TRACE(DS_DSR_SERVICE_UPDATE_FAIL);
        return -1;
    }

    service->last_relay_send_time = fts_get_stamp_fast();
    count_send(service, operation);
    dsr_dsc_send_update(operation, name, service->service_id, instance, entry->scope, service->pid,
                        service->gen, entry->ep_addr, static_cast<uint32_t>(entry->ep_addr_len),
                        attrs, attr_bytes, 0);
    DS_TRACE(DS_DSR_SERVICE_UPDATE, dsr_op_name(operation), service->service_id,
             ds_service_instance_name(name, instance), ds_scope_name(entry->scope), service->gen,
             service->prev_ver);
    trace_endpoints(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
    service->prev_ver = service->gen;
    free(attrs);
    return 0;
}

int ds_remote_send_all(void) {
    ds_db_services_iter(send_as_addition, NULL);
    return 0;
}
}
