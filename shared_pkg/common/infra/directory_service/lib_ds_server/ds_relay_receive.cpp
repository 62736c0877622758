// Inbound replication: one relay update becomes a publication or a withdrawal of another node, or
// is turned back when it speaks of a service that this node no longer owns.

#include "ds_trace.h"

#include <stdlib.h>
#include <string.h>

namespace {

constexpr uint32_t role_unknown = 255; // nothing came that could tell
constexpr uint32_t role_absent = 254;  // attributes came, this one was not among them
constexpr uint32_t issu_id_absent = 255;

struct update {
    uint32_t operation;
    const uint8_t *sender;
    const char *name;
    uint32_t service_id;
    const char *instance; // null = none
    uint32_t scope;
    uint32_t pid;
    uint32_t version;
    const void *ep_bytes;
    uint64_t ep_len;
    const void *attr_bytes;
    uint64_t attr_len;
    ds_node_t *node; // the sender's, set once it is looked up
};

// The decoded attribute list of one update; owned until it is taken.
class decoded_attrs {
  public:
    decoded_attrs(const void *bytes, uint64_t length) {
        if (bytes == NULL || length == 0) return;
        if (vidl_ds_service_attrs_decode_ext(&attrs_, bytes, length, malloc, 0, 0) < 0) return;
        ha_role = find(DS_ATTR_HA_ROLE, role_absent);
        issu_role = find(DS_ATTR_ISSU_ROLE, role_absent);
        issu_id = find(DS_ATTR_ISSU_ID, issu_id_absent);
    }
    ~decoded_attrs() { free(attrs_.attrs); }
    decoded_attrs(const decoded_attrs &) = delete;
    decoded_attrs &operator=(const decoded_attrs &) = delete;

    uint32_t count() const { return attrs_.attrs_count; }
    ds_service_attr_t *take() {
        ds_service_attr_t *taken = attrs_.attrs;
        attrs_.attrs = NULL;
        return taken;
    }

    uint32_t ha_role = role_unknown;
    uint32_t issu_role = role_unknown;
    uint32_t issu_id = 0;

  private:
    uint32_t find(int32_t type, uint32_t otherwise) const {
        for (uint32_t i = 0; i < attrs_.attrs_count; i++)
            if (attrs_.attrs[i].type == type) return attrs_.attrs[i].value;
        return otherwise;
    }

    ds_service_attrs_t attrs_ = {};
};

void log_receipt(const update &u, const decoded_attrs &attrs) {
    uint32_t address = 0;
    uint32_t port = 0;
    if (ds_decode_endpoint(u.ep_bytes, u.ep_len, &address, &port) != 0) address = port = 0;
    DS_TRACE_IN("dsr_receive_cb", DS_DSR_SERVICE_RECEIVE, dsr_op_name(u.operation),
                ds_peer_addr_text(u.sender), u.service_id,
                ds_service_instance_name(u.name, u.instance), ds_scope_name(u.scope), u.version,
                u.pid, address >> 24 & 255, address >> 16 & 255, address >> 8 & 255, address & 255,
                port, ds_ha_role_name(attrs.ha_role), attrs.ha_role,
                ds_issu_role_name(attrs.issu_role), attrs.issu_role, attrs.issu_id);
}

// The relay holds an entry of this node that nobody here owns: its deletion supersedes it.
int turn_back(const update &u) {
    dsr_dsc_send_update(DSR_DELETE, u.name, u.service_id, u.instance, u.scope, u.pid, u.version + 1,
                        u.ep_bytes, static_cast<uint32_t>(u.ep_len), u.attr_bytes,
                        static_cast<uint32_t>(u.attr_len), 0);
    return 0;
}

// Frees what make_publish_info allocated, whole or in part.
void discard(ds_service_publish_info *info, ds_service_info_t *entry, void *endpoint, void *name,
             void *instance) {
    free(endpoint);
    free(entry);
    free(info);
    free(name);
    free(instance);
}

// A publish info with one entry that owns copies of everything; null when memory ran out.
ds_service_publish_info *make_publish_info(const update &u, decoded_attrs &attrs) {
    const bool has_endpoint = u.ep_bytes != NULL && u.ep_len != 0;
    uint8_t *endpoint = has_endpoint ? static_cast<uint8_t *>(memdup(u.ep_bytes, u.ep_len)) : NULL;
    ds_service_info_t *entry = static_cast<ds_service_info_t *>(calloc(1, sizeof *entry));
    ds_service_publish_info *info = static_cast<ds_service_publish_info *>(calloc(1, sizeof *info));
    char *name = static_cast<char *>(memdup(u.name, strlen(u.name) + 1));
    char *instance =
        u.instance != NULL ? static_cast<char *>(memdup(u.instance, strlen(u.instance) + 1)) : NULL;
    if ((has_endpoint && endpoint == NULL) || entry == NULL || info == NULL || name == NULL ||
        (u.instance != NULL && instance == NULL)) {
        discard(info, entry, endpoint, name, instance);
        return NULL;
    }

    if (has_endpoint) VIDL_SET_BYTES(entry, ep_addr, DS_SINFO_BIT_EP_ADDR, endpoint, u.ep_len);
    VIDL_SET(entry, scope, DS_SINFO_BIT_SCOPE, u.scope);
    if (attrs.count() != 0)
        VIDL_SET_ARRAY(entry, attrs, DS_SINFO_BIT_ATTRS, attrs.take(), attrs.count());
    if (instance != NULL) VIDL_SET(entry, instance, DS_SINFO_BIT_INSTANCE, instance);
    VIDL_SET(info, service_name, DS_PINFO_BIT_NAME, name);
    VIDL_SET_ARRAY(info, entries, DS_PINFO_BIT_ENTRIES, entry, 1);
    return info;
}

void count_receipt() {
    ds_db_t *db = ds_db_context();
    if (db != NULL) db->relay_updates_received++;
}

} // namespace

extern "C" int dsr_receive_cb(uint32_t operation, const uint8_t *sender, const char *service_name,
                              uint32_t service_id, const char *instance, uint32_t scope,
                              uint32_t pid, uint32_t version, const void *ep_bytes, uint64_t ep_len,
                              const void *attr_bytes, uint64_t attr_len) {
    if (sender == NULL || service_name == NULL || ds_db_context() == NULL) return -1;
    update u = {operation, sender,   service_name, service_id, instance, scope, pid,
                version,   ep_bytes, ep_len,       attr_bytes, attr_len, NULL};
    decoded_attrs attrs(attr_bytes, attr_len);
    log_receipt(u, attrs);
    u.node = reinterpret_cast<ds_node_t *>(platform_get_nodeid_from_ethaddr(sender));
    const bool is_own = u.node == ds_local_node();
    if (is_own && !ds_timer_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER)) return turn_back(u);

    const ds_dsr_service_ref_t ref = {service_id, version};
    if (operation == DSR_DELETE) {
        if (is_own) return -1;
        ds_service_key_t key;
        VIDL_CLEAR(&key);
        VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, const_cast<char *>(service_name));
        VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, scope);
        if (instance != NULL)
            VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, const_cast<char *>(instance));
        count_receipt();
        return ds_db_unpublish_service(pid, u.node, &key, &ref);
    }

    ds_service_publish_info *info = make_publish_info(u, attrs);
    if (info == NULL) {
        DS_TRACE(DSR_RECEIVE_NOTIF_ERR);
        return -1;
    }
    count_receipt();
    const int result = ds_db_publish_service(pid, u.node, info, &ref);
    const uint64_t node_id = reinterpret_cast<uint64_t>(u.node);
    if (result != 0)
        DS_TRACE(DSR_PUBLISH_ERR, pid, ds_peer_addr_text(sender), node_id,
                 ds_service_instance_name(service_name, instance));
    else
        DS_TRACE(DSR_PUBLISH_SUCCESS, pid, ds_peer_addr_text(sender), node_id,
                 ds_service_instance_name(service_name, instance));
    // A record that knew the service already took its identity, not the info.
    if (info->held == 0) {
        vidl_ds_service_publish_info_free_ext(info, free, 0);
        free(info);
    }
    return result;
}
