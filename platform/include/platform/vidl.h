#ifndef PLATFORM_VIDL_H
#define PLATFORM_VIDL_H
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Marshalled records carry a presence mask, uint8_t presence[ceil(fields/8)], directly behind the
   last field; field n's bit is presence[n / 8] & (1 << (n % 8)). */
#define VIDL_PRESENT(rec, bit) (((rec)->presence[(bit) / 8] >> ((bit) % 8)) & 1u)
#define VIDL_SET_BIT(rec, bit) ((void)((rec)->presence[(bit) / 8] |= (uint8_t)(1u << ((bit) % 8))))
#define VIDL_CLR_BIT(rec, bit)                                                                     \
    ((void)((rec)->presence[(bit) / 8] &= (uint8_t) ~(1u << ((bit) % 8))))
#define VIDL_CLEAR(rec)                                                                            \
    ((void)memset((rec), 0, sizeof *(rec))) /* clears the record with all its bits */
#define VIDL_SET(rec, field, bit, v) ((rec)->field = (v), VIDL_SET_BIT(rec, bit))
#define VIDL_SET_ARRAY(rec, field, bit, p, n)                                                      \
    ((rec)->field = (p), (rec)->field##_count = (n), VIDL_SET_BIT(rec, bit))
#define VIDL_SET_BYTES(rec, field, bit, p, n)                                                      \
    ((rec)->field = (p), (rec)->field##_len = (n), VIDL_SET_BIT(rec, bit))

/* attribute record; owns no memory of its own, so free() of an attribute array releases all of it
 */
enum { DS_ATTR_HA_ROLE = 1, DS_ATTR_ISSU_ROLE = 2, DS_ATTR_ISSU_ID = 3 };
typedef struct ds_service_attr {
    int32_t type;     /* bit 0: DS_ATTR_* */
    uint32_t value;   /* bit 1 */
    uint64_t further; /* bit 2: further marshalled data, never read by the library */
    uint8_t presence[1];
} ds_service_attr_t;
enum { DS_ATTR_BIT_TYPE, DS_ATTR_BIT_VALUE, DS_ATTR_BIT_FURTHER, DS_ATTR_NFIELDS };

/* attribute container: what is encoded to and decoded from the relay's attribute bytes */
typedef struct ds_service_attrs {
    ds_service_attr_t *attrs; /* bit 0: counted array */
    uint32_t attrs_count;
    uint8_t presence[1];
} ds_service_attrs_t;
enum { DS_ATTRS_BIT_ATTRS, DS_ATTRS_NFIELDS };

/* endpoint entry of a publish info: 64 bytes */
enum { DS_EP_TYPE_IP = 0, DS_EP_TYPE_PATH = 1 };
typedef struct ds_service_info {
    uint32_t ep_type; /* bit 0 */
    uint8_t *ep_addr; /* bit 1: byte string */
    uint64_t ep_addr_len;
    uint32_t scope;           /* bit 2 */
    ds_service_attr_t *attrs; /* bit 3: counted array */
    uint32_t attrs_count;
    char *instance; /* bit 4 */
    uint8_t presence[1];
} ds_service_info_t;
enum {
    DS_SINFO_BIT_EP_TYPE,
    DS_SINFO_BIT_EP_ADDR,
    DS_SINFO_BIT_SCOPE,
    DS_SINFO_BIT_ATTRS,
    DS_SINFO_BIT_INSTANCE,
    DS_SINFO_NFIELDS
};

/* publish info: 32 bytes; the two marker bytes stand directly behind the presence byte */
typedef struct ds_service_publish_info {
    char *service_name;         /* bit 0 */
    uint64_t field2;            /* bit 1: never set by the library */
    ds_service_info_t *entries; /* bit 2: counted array */
    uint32_t entries_count;
    uint8_t presence[1];
    uint8_t held;     /* marker: 1 once a service record has taken the info */
    uint8_t borrowed; /* marker: 1 when the top-level structure lives in the caller's storage */
} ds_service_publish_info;
enum { DS_PINFO_BIT_NAME, DS_PINFO_BIT_FIELD2, DS_PINFO_BIT_ENTRIES, DS_PINFO_NFIELDS };

/* notification message: 48 bytes */
typedef struct ds_notif_msg {
    ds_service_publish_info publish_info; /* bit 0: embedded, first, so &msg == &msg.publish_info */
    uint64_t reg_cookie;                  /* bit 1 */
    uint32_t reg_handle;                  /* bit 2 */
    uint8_t presence[1];
} ds_notif_msg;
enum {
    DS_NOTIF_BIT_PUBLISH_INFO,
    DS_NOTIF_BIT_REG_COOKIE,
    DS_NOTIF_BIT_REG_HANDLE,
    DS_NOTIF_NFIELDS
};

/* service key of a withdrawal; field2 and field4 are the common library's and are not read */
typedef struct ds_service_key {
    char *service_name; /* bit 0: may be null */
    uint64_t field2;    /* bit 1 */
    uint32_t scope;     /* bit 2: read whether or not its bit is set */
    uint64_t field4;    /* bit 3 */
    char *instance;     /* bit 4: read only when the bit is set */
    uint8_t presence[1];
} ds_service_key_t;
enum {
    DS_KEY_BIT_NAME,
    DS_KEY_BIT_FIELD2,
    DS_KEY_BIT_SCOPE,
    DS_KEY_BIT_FIELD4,
    DS_KEY_BIT_INSTANCE,
    DS_KEY_NFIELDS
};

/* registration entry of a dump: 48 bytes */
typedef struct vidl_ds_client_reg_entry {
    uint32_t pid;             /* bit 0 */
    uint64_t service_name;    /* bit 1: address of the element's name */
    char *client_name;        /* bit 2 */
    uint64_t created_time;    /* bit 3 */
    uint64_t last_notif_time; /* bit 4 */
    uint32_t nnotifs;         /* bit 5 */
    uint8_t presence[1];
} vidl_ds_client_reg_entry;
enum {
    DS_REGE_BIT_PID,
    DS_REGE_BIT_SERVICE_NAME,
    DS_REGE_BIT_CLIENT_NAME,
    DS_REGE_BIT_CREATED_TIME,
    DS_REGE_BIT_LAST_NOTIF_TIME,
    DS_REGE_BIT_NNOTIFS,
    DS_REGE_NFIELDS
};

/* service-info dump record: 128 bytes */
typedef struct ds_dump_service_info {
    uint32_t ep_type; /* bit 0 */
    uint8_t *ep_addr; /* bit 1 */
    uint64_t ep_addr_len;
    uint32_t scope;           /* bit 2 */
    ds_service_attr_t *attrs; /* bit 3 */
    uint32_t attrs_count;
    uint64_t service_name; /* bit 4: address of the element's name */
    char *instance;        /* bit 5 */
    uint8_t *node_addr;    /* bit 6: the node record's addr, length 6 */
    uint64_t node_addr_len;
    uint32_t service_id;           /* bit 7 */
    uint32_t pid;                  /* bit 8 */
    uint32_t proc_id;              /* bit 9 */
    uint64_t added_time;           /* bit 10 */
    uint64_t update_time;          /* bit 11 */
    uint64_t last_relay_send_time; /* bit 12 */
    uint8_t presence[2];
} ds_dump_service_info;
enum {
    DS_DSVC_BIT_EP_TYPE,
    DS_DSVC_BIT_EP_ADDR,
    DS_DSVC_BIT_SCOPE,
    DS_DSVC_BIT_ATTRS,
    DS_DSVC_BIT_SERVICE_NAME,
    DS_DSVC_BIT_INSTANCE,
    DS_DSVC_BIT_NODE_ADDR,
    DS_DSVC_BIT_SERVICE_ID,
    DS_DSVC_BIT_PID,
    DS_DSVC_BIT_PROC_ID,
    DS_DSVC_BIT_ADDED_TIME,
    DS_DSVC_BIT_UPDATE_TIME,
    DS_DSVC_BIT_LAST_RELAY_SEND_TIME,
    DS_DSVC_NFIELDS
};

/* element dump record: 128 bytes */
typedef struct ds_dump_selem_info {
    char *name;                          /* bit 0 */
    ds_dump_service_info *service_infos; /* bit 1 */
    uint32_t service_infos_count;
    vidl_ds_client_reg_entry *reg_entries; /* bit 2 */
    uint32_t reg_entries_count;
    uint64_t last_add_time;           /* bit 3 */
    uint64_t last_delete_time;        /* bit 4 */
    uint64_t last_modify_time;        /* bit 5 */
    uint64_t last_reg_time;           /* bit 6 */
    uint64_t last_unreg_time;         /* bit 7 */
    uint32_t local_services_added;    /* bit 8 */
    uint32_t remote_services_added;   /* bit 9 */
    uint32_t local_services_deleted;  /* bit 10 */
    uint32_t remote_services_deleted; /* bit 11 */
    uint32_t local_services_updated;  /* bit 12: never set */
    uint32_t remote_services_updated; /* bit 13: never set */
    uint32_t registrations_added;     /* bit 14 */
    uint32_t registrations_deleted;   /* bit 15 */
    uint32_t nnotifs;                 /* bit 16 */
    uint32_t remote_change_count;     /* bit 17 */
    uint32_t relay_updates_sent;      /* bit 18 */
    uint8_t presence[3];
} ds_dump_selem_info;
enum {
    DS_DSEL_BIT_NAME,
    DS_DSEL_BIT_SERVICE_INFOS,
    DS_DSEL_BIT_REG_ENTRIES,
    DS_DSEL_BIT_LAST_ADD_TIME,
    DS_DSEL_BIT_LAST_DELETE_TIME,
    DS_DSEL_BIT_LAST_MODIFY_TIME,
    DS_DSEL_BIT_LAST_REG_TIME,
    DS_DSEL_BIT_LAST_UNREG_TIME,
    DS_DSEL_BIT_LOCAL_SERVICES_ADDED,
    DS_DSEL_BIT_REMOTE_SERVICES_ADDED,
    DS_DSEL_BIT_LOCAL_SERVICES_DELETED,
    DS_DSEL_BIT_REMOTE_SERVICES_DELETED,
    DS_DSEL_BIT_LOCAL_SERVICES_UPDATED,
    DS_DSEL_BIT_REMOTE_SERVICES_UPDATED,
    DS_DSEL_BIT_REGISTRATIONS_ADDED,
    DS_DSEL_BIT_REGISTRATIONS_DELETED,
    DS_DSEL_BIT_NNOTIFS,
    DS_DSEL_BIT_REMOTE_CHANGE_COUNT,
    DS_DSEL_BIT_RELAY_UPDATES_SENT,
    DS_DSEL_NFIELDS
};

/* client dump record: 80 bytes */
typedef struct ds_dump_client_info {
    uint32_t pid;                          /* bit 0: ds_client_pid truncated to 32 bits */
    uint64_t client_name;                  /* bit 1: address of the client's name */
    vidl_ds_client_reg_entry *reg_entries; /* bit 2 */
    uint32_t reg_entries_count;
    ds_dump_service_info *service_infos; /* bit 3 */
    uint32_t service_infos_count;
    uint32_t services_published;    /* bit 4 */
    uint32_t services_updated;      /* bit 5 */
    uint32_t services_deleted;      /* bit 6 */
    uint64_t last_activity_time;    /* bit 7 */
    uint32_t registrations_added;   /* bit 8 */
    uint32_t registrations_deleted; /* bit 9 */
    uint32_t nnotifs;               /* bit 10 */
    uint8_t presence[2];
} ds_dump_client_info;
enum {
    DS_DCLI_BIT_PID,
    DS_DCLI_BIT_CLIENT_NAME,
    DS_DCLI_BIT_REG_ENTRIES,
    DS_DCLI_BIT_SERVICE_INFOS,
    DS_DCLI_BIT_SERVICES_PUBLISHED,
    DS_DCLI_BIT_SERVICES_UPDATED,
    DS_DCLI_BIT_SERVICES_DELETED,
    DS_DCLI_BIT_LAST_ACTIVITY_TIME,
    DS_DCLI_BIT_REGISTRATIONS_ADDED,
    DS_DCLI_BIT_REGISTRATIONS_DELETED,
    DS_DCLI_BIT_NNOTIFS,
    DS_DCLI_NFIELDS
};

/* dump response; host1, host3 and host4 are the host's and are neither read nor written */
enum { DS_DUMP_REQ_REGISTRATIONS = 1, DS_DUMP_REQ_SERVICES = 2, DS_DUMP_REQ_CLIENTS = 4 };
typedef struct ds_dump_resp_info {
    uint64_t host1;                  /* bit 0  (field 1) */
    char *service_name;              /* bit 1  (field 2) */
    uint64_t host3;                  /* bit 2  (field 3) */
    uint64_t host4;                  /* bit 3  (field 4) */
    ds_dump_selem_info *selem_infos; /* bit 4  (field 5) */
    uint32_t selem_infos_count;
    ds_dump_client_info *client_infos; /* bit 5  (field 6) */
    uint32_t client_infos_count;
    uint32_t clients_added;           /* bit 6  (field 7) */
    uint32_t clients_deleted;         /* bit 7  */
    uint64_t last_client_add_time;    /* bit 8  */
    uint64_t last_client_delete_time; /* bit 9  */
    uint32_t local_services_added;    /* bit 10 */
    uint32_t remote_services_added;   /* bit 11 */
    uint32_t local_services_updated;  /* bit 12: updates come before deletes here */
    uint32_t remote_services_updated; /* bit 13 */
    uint32_t local_services_deleted;  /* bit 14 */
    uint32_t remote_services_deleted; /* bit 15 */
    uint32_t registrations_added;     /* bit 16 */
    uint32_t registrations_deleted;   /* bit 17 */
    uint32_t nnotifs;                 /* bit 18 */
    uint32_t relay_updates_sent;      /* bit 19 (field 20) */
    uint32_t relay_adds_sent;         /* bit 20 */
    uint32_t relay_deletes_sent;      /* bit 21 */
    uint32_t relay_modifies_sent;     /* bit 22 */
    uint32_t relay_updates_received;  /* bit 23 (field 24) */
    uint32_t relay_spare_counter;     /* bit 24 (field 25) */
    uint32_t request_flags; /* bit 25 (field 26): DS_DUMP_REQ_*, read only, read whether or not its
                               bit is set */
    uint8_t presence[4];
} ds_dump_resp_info;
enum {
    DS_RESP_BIT_HOST1,
    DS_RESP_BIT_SERVICE_NAME,
    DS_RESP_BIT_HOST3,
    DS_RESP_BIT_HOST4,
    DS_RESP_BIT_SELEM_INFOS,
    DS_RESP_BIT_CLIENT_INFOS,
    DS_RESP_BIT_CLIENTS_ADDED,
    DS_RESP_BIT_CLIENTS_DELETED,
    DS_RESP_BIT_LAST_CLIENT_ADD_TIME,
    DS_RESP_BIT_LAST_CLIENT_DELETE_TIME,
    DS_RESP_BIT_LOCAL_SERVICES_ADDED,
    DS_RESP_BIT_REMOTE_SERVICES_ADDED,
    DS_RESP_BIT_LOCAL_SERVICES_UPDATED,
    DS_RESP_BIT_REMOTE_SERVICES_UPDATED,
    DS_RESP_BIT_LOCAL_SERVICES_DELETED,
    DS_RESP_BIT_REMOTE_SERVICES_DELETED,
    DS_RESP_BIT_REGISTRATIONS_ADDED,
    DS_RESP_BIT_REGISTRATIONS_DELETED,
    DS_RESP_BIT_NNOTIFS,
    DS_RESP_BIT_RELAY_UPDATES_SENT,
    DS_RESP_BIT_RELAY_ADDS_SENT,
    DS_RESP_BIT_RELAY_DELETES_SENT,
    DS_RESP_BIT_RELAY_MODIFIES_SENT,
    DS_RESP_BIT_RELAY_UPDATES_RECEIVED,
    DS_RESP_BIT_RELAY_SPARE_COUNTER,
    DS_RESP_BIT_REQUEST_FLAGS,
    DS_RESP_NFIELDS
};

/* decoded endpoint encodings */
typedef struct vidl_vipc_endpoint {
    uint8_t address[4];
    uint32_t port;
    uint8_t presence[1];
} vidl_vipc_endpoint_t; /* address printed address[0].[1].[2].[3] */
typedef struct vidl_ds_ep_path {
    char *path;
    uint8_t presence[1];
} vidl_ds_ep_path_t; /* path is NUL-terminated, from the given allocator; the caller frees it */

typedef void *(*vidl_alloc_fn)(size_t size);
typedef void (*vidl_free_fn)(void *memory);

/* Writes the encoding of the list: at most 536 bytes an attribute, and none for an empty list,
   which also fits a capacity of 0. Returns the bytes written, never more than capacity; -1 =
   failure. */
int32_t vidl_ds_service_attrs_encode_ext(const ds_service_attrs_t *attrs, void *buffer,
                                         uint32_t capacity, uint32_t zero1, uint32_t zero2,
                                         uint32_t zero3);

/* The decoders take bytes from clients and other nodes and trust none of them. They return the
   bytes consumed; -1 = undecodable or out of memory, with the output all zero. What they allocate
   comes from alloc and is the caller's. The attribute array is one allocation. */
int32_t vidl_ds_service_attrs_decode_ext(ds_service_attrs_t *attrs, const void *bytes,
                                         uint64_t length, vidl_alloc_fn alloc, uint32_t zero1,
                                         uint32_t zero2);
int32_t vidl_vipc_endpoint_decode_ext(vidl_vipc_endpoint_t *ep, const void *bytes, uint64_t length,
                                      vidl_alloc_fn alloc, uint32_t zero1, uint32_t zero2);
int32_t vidl_ds_ep_path_decode_ext(vidl_ds_ep_path_t *path, const void *bytes, uint64_t length,
                                   vidl_alloc_fn alloc, uint32_t zero1, uint32_t zero2);

/* Releases the name, the entries array and, for each entry, its address bytes, attribute array and
   instance: every pointer that is not null, whatever the presence bits say. The pointers are null
   afterwards; the structure itself and its markers stay the caller's. */
void vidl_ds_service_publish_info_free_ext(ds_service_publish_info *info, vidl_free_fn release,
                                           uint32_t zero);
#ifdef __cplusplus
}
#endif
#endif
