// Notifications: one message with every live instance of a name, handed to the host once for each
// registration that has not seen the element's version.

#include "ds_trace.h"

#include <stdlib.h>

namespace {

constexpr int entries_alloc_line = 73; // part of the message's text

void clear_message(ds_notif_msg *msg, const ds_service_elem_t *selem) {
    VIDL_CLEAR(msg);
    VIDL_SET(&msg->publish_info, service_name, DS_PINFO_BIT_NAME, selem->name);
    VIDL_SET_BIT(msg, DS_NOTIF_BIT_PUBLISH_INFO);
}

void address_message(ds_notif_msg *msg, const ds_client_reg_t *reg) {
    VIDL_SET(msg, reg_handle, DS_NOTIF_BIT_REG_HANDLE, reg->handle);
    VIDL_SET(msg, reg_cookie, DS_NOTIF_BIT_REG_COOKIE, reg->reg_arg);
}

void count_notification(ds_client_reg_t *reg) {
    reg->nnotifs++;
    reg->client->nnotifs++;
    reg->last_notif_time = fts_get_stamp_fast();
    reg->client->last_activity_time = fts_get_stamp_fast();
}

void call_host(uint32_t slot, const ds_client_reg_t *reg, ds_notif_msg *msg) {
    ds_client_send_fn callback = reinterpret_cast<ds_client_send_fn>(ds_slot(slot));
    if (callback != NULL) callback(reg->client->client_hdl, msg);
}

bool has_seen(const ds_client_reg_t *reg, const ds_service_elem_t *selem) {
    return reg->creg_ver != 0 && reg->creg_ver == selem->selem_version;
}

// Counts the entries of the live services; every service is logged, live or not.
uint32_t count_entries(ds_service_elem_t *selem) {
    uint32_t total = 0;
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = ds_service_get_next_in_service_list(service)) {
        if (!ds_is_placeholder(service))
            total += ds_get_service_endpoint_count(service->publish_info);
        DS_TRACE_IN("ds_prepare_notif_message", DS_NOTIF_SERVICE_EXP_3,
                    static_cast<void *>(service->publish_info), service->proc_id, total,
                    selem->name);
    }
    return total;
}

// The entries are copied whole but shallow: what they point to stays the services'.
void gather_entries(ds_service_elem_t *selem, ds_service_info_t *entries) {
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = ds_service_get_next_in_service_list(service)) {
        if (ds_is_placeholder(service)) continue;
        const uint32_t count = ds_get_service_endpoint_count(service->publish_info);
        for (uint32_t i = 0; i < count; i++)
            *entries++ = service->publish_info->entries[i];
    }
}

} // namespace

extern "C" {

int ds_prepare_notif_message(ds_service_elem_t *selem, ds_service_publish_info *publish_info,
                             uint32_t *count_out) {
    if (selem == NULL || publish_info == NULL || count_out == NULL) return -1;
    *count_out = 0;
    VIDL_SET(publish_info, service_name, DS_PINFO_BIT_NAME, selem->name);
    if (ds_service_get_service_list_head(selem) == NULL) return 0;
    const uint32_t total = count_entries(selem);
    *count_out = total;
    if (total == 0) return 0;

    ds_service_info_t *entries =
        static_cast<ds_service_info_t *>(malloc(total * sizeof(ds_service_info_t)));
    if (entries == NULL) {
        DS_TRACE(DS_NOTIFY_ERR, __func__, entries_alloc_line);
        return -1; // the count stays: the run goes on as for a change, without entries
    }
    gather_entries(selem, entries);
    VIDL_SET_ARRAY(publish_info, entries, DS_PINFO_BIT_ENTRIES, entries, total);
    return 0;
}

int ds_notify(ds_service_elem_t *selem) {
    if (selem == NULL) return 0;
    ds_notif_msg msg;
    clear_message(&msg, selem);
    uint32_t count = 0;
    if (ds_service_get_service_list_head(selem) != NULL)
        ds_prepare_notif_message(selem, &msg.publish_info, &count);

    ds_notify_hook_fn hook =
        reinterpret_cast<ds_notify_hook_fn>(ds_slot(DS_GLOBAL_SLOT_NOTIFY_HOOK));
    if (hook != NULL) hook(selem, &msg.publish_info);

    ds_db_t *db = ds_db_context();
    for (ds_client_reg_t *reg = ds_service_get_client_reg_list_head(selem); reg != NULL;
         reg = ds_service_get_next_in_client_reg_list(reg)) {
        if (db != NULL) db->nnotifs++;
        reg->selem->nnotifs++;
        ds_notify_client_expanded(reg, selem, &msg, &msg.publish_info, count);
    }
    free(msg.publish_info.entries);
    return 0;
}

int ds_notify_client_expanded(ds_client_reg_t *reg, ds_service_elem_t *selem, ds_notif_msg *msg,
                              ds_service_publish_info *publish_info, uint32_t count) {
    if (reg == NULL || reg->client == NULL || selem == NULL || msg == NULL) return 0;
    if (has_seen(reg, selem)) return 0;
    address_message(msg, reg);
    reg->creg_ver = selem->selem_version;
    count_notification(reg);
    ds_client_t *client = reg->client;
    if (count != 0 && publish_info != NULL) {
        DS_TRACE(DS_NOTIF_SERVICE_EXP, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), client->client_idx, reg->handle,
                 selem->name);
        call_host(DS_GLOBAL_SLOT_CLIENT_SEND, reg, msg);
    } else {
        DS_TRACE(DS_NOTIF_SERVICE_DELETED_EXP, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), client->client_idx, reg->handle,
                 selem->name);
        call_host(DS_GLOBAL_SLOT_CLIENT_DELETE, reg, msg);
        call_host(DS_GLOBAL_SLOT_CLIENT_SEND, reg, msg);
    }
    return 0;
}

int ds_notify_client(ds_client_reg_t *reg, ds_service_elem_t *selem) {
    if (reg == NULL || reg->client == NULL || selem == NULL || has_seen(reg, selem)) return 0;
    ds_notif_msg own;
    ds_notif_msg *msg = &own;
    clear_message(msg, selem);
    address_message(msg, reg);
    uint32_t count = 0;
    if (ds_service_get_service_list_head(selem) != NULL)
        ds_prepare_notif_message(selem, &msg->publish_info, &count);

    ds_client_t *client = reg->client;
    if (count != 0) {
        DS_TRACE(DS_NOTIF_SERVICE, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), client->client_idx, reg->handle,
                 reg->creg_ver, selem->selem_version, selem->name);
        count_notification(reg);
        reg->creg_ver = selem->selem_version;
        call_host(DS_GLOBAL_SLOT_CLIENT_SEND, reg, msg);
        free(msg->publish_info.entries);
    } else if (msg == NULL && reg->creg_ver != 0) {
        // Telling one registration is silent about deletions on purpose: there always is a message.
        DS_TRACE(DS_NOTIF_SERVICE_DELETED, ds_client_pid(client),
                 reinterpret_cast<void *>(client->client_hdl), client->client_idx, reg->creg_ver,
                 selem->selem_version, selem->name);
        count_notification(reg);
        reg->creg_ver = selem->selem_version;
        call_host(DS_GLOBAL_SLOT_CLIENT_DELETE, reg, msg);
        call_host(DS_GLOBAL_SLOT_CLIENT_SEND, reg, msg);
    }
    return 0;
}
}
