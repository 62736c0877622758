#ifndef DS_SERVER_LIB_H
#define DS_SERVER_LIB_H
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include "platform/avl.h"
#include "platform/chunk.h"
#include "platform/dbly.h"
#include "platform/ds_common.h"
#include "platform/dsr.h"
#include "platform/fts.h"
#include "platform/mem.h"
#include "platform/mgd_timer.h"
#include "platform/rtrace.h"
#include "platform/vanto.h"
#include "platform/vidl.h"
#ifdef __cplusplus
extern "C" {
#endif

/* ---- global state block ---- */
enum {
    DS_GLOBAL_SLOT_TIMER_PARENT        = 0,    /* mgd_timer_t * */
    DS_GLOBAL_SLOT_TIMER_CONTEXT       = 1,    /* value */
    DS_GLOBAL_SLOT_OWN_RESTART_TIMER   = 2,    /* mgd_timer_t * or 0, the host's */
    DS_GLOBAL_SLOT_RELAY_RESTART_TIMER = 3,    /* mgd_timer_t * or 0, written by dsr_disconn_cb */
    DS_GLOBAL_SLOT_DB                  = 14,   /* ds_db_t *, written by ds_db_init */
    DS_GLOBAL_SLOT_CONSOLE             = 16,   /* FILE * or 0 */
    DS_GLOBAL_SLOT_LOCAL_NODE          = 39,   /* ds_node_t * */
    DS_GLOBAL_SLOT_RELAY_CONNECTED     = 40,   /* FIRST BYTE only: 1 connected, 0 not; the other seven bytes are never touched */
    DS_GLOBAL_SLOT_NOTIFY_HOOK         = 41,   /* ds_notify_hook_fn or 0 */
    DS_GLOBAL_SLOT_CLIENT_SEND         = 44,   /* ds_client_send_fn */
    DS_GLOBAL_SLOT_CLIENT_DELETE       = 45,   /* ds_client_send_fn, called before slot 44 for a deletion */
    DS_GLOBAL_SLOT_CLIENT_PID          = 46,   /* ds_client_pid_fn */
    DS_GLOBAL_SLOT_CLIENT_NAME         = 47,   /* ds_client_name_fn */
    DS_GLOBAL_SLOT_COUNT               = 48
};
typedef struct ds_globals { uint64_t slot[DS_GLOBAL_SLOT_COUNT]; } ds_globals_t;

/* ---- trace channels, fault-message record ---- */
enum { DS_CHANNEL_PUB = 0, DS_CHANNEL_REG = 1, DS_CHANNEL_ERR = 2, DS_CHANNEL_NOTIF = 3, DS_CHANNEL_MAIN = 4, DS_CHANNEL_COUNT = 5 };
typedef struct zul_msg_rec {                   /* nine 64-bit words, 72 bytes */
    const void *word0;                         /* null */
    const char *format;                        /* "Process %ld published service (%s/%s) from different DS handle." */
    const void *word2;                         /* null */
    const char *facility;                      /* "Directory_Service" */
    const char *category;                      /* "INFRA" */
    const char *mnemonic;                      /* "DUPLICATED_SERVICE" */
    uint64_t    word6;                         /* 0x30000 */
    uint64_t    word7;                         /* 0 */
    uint64_t    word8;                         /* 0x113a0000 */
} zul_msg_rec_t;

/* ---- codes ---- */
enum { DS_SCOPE_NONE = 0, DS_SCOPE_RACK = 1, DS_SCOPE_SYSTEM = 2, DS_SCOPE_LOCAL = 3, DS_SCOPE_ANY = 4 };
enum { DS_SERVICE_FLAG_DSR_CONFIRMED = 0x1, DS_SERVICE_FLAG_RECONCILE = 0x2 };
enum { DS_PROC_ID_FROM_DSR = 1 };              /* proc_id of a relay-created (placeholder) record */
enum { DS_REMOTE_PUBLISHED = 1, DS_REMOTE_WITHDRAWN = 2 };   /* request of ds_remote_notify */

/* ---- records, fields in declared order ---- */
typedef struct ds_db {
    chunk_pool_t               *client_pool;
    chunk_pool_t               *client_reg_pool;
    chunk_pool_t               *service_pool;
    chunk_pool_t               *selem_pool;
    avl_root_t                  selem_tree;
    dbly_head_t                 client_list;
    vanto_protected_hashtable_t node_table;
    uint32_t                    client_idx_counter;
    uint32_t                    next_service_id;
    pthread_mutex_t             mutex;
    uint32_t                    clients_added;
    uint32_t                    clients_deleted;
    uint64_t                    last_client_add_time;
    uint64_t                    last_client_delete_time;
    uint32_t                    local_services_added;
    uint32_t                    remote_services_added;
    uint32_t                    local_services_deleted;
    uint32_t                    remote_services_deleted;
    uint32_t                    local_services_updated;
    uint32_t                    remote_services_updated;
    uint32_t                    registrations_added;
    uint32_t                    registrations_deleted;
    uint32_t                    nnotifs;
    uint32_t                    relay_updates_sent;
    uint32_t                    relay_adds_sent;
    uint32_t                    relay_deletes_sent;
    uint32_t                    relay_modifies_sent;
    uint32_t                    relay_updates_received;
    uint32_t                    relay_spare_counter;
    struct ds_client           *last_client_found;   /* private: where the last look-up by index ended */
} ds_db_t;

typedef struct ds_node {                       /* its address is the node id */
    uint8_t *addr;                             /* private copy of the 6 address bytes; the hash key */
    char     name[18];                         /* "%02x:%02x:%02x:%02x:%02x:%02x" */
    uint32_t services_added;
    uint32_t services_deleted;
    uint32_t services_updated;
    uint64_t last_change_time;
    uint64_t last_down_time;
    uint32_t down_count;
} ds_node_t;

typedef struct ds_client {
    uint64_t       client_hdl;
    dbly_linkage_t client_link;
    dbly_head_t    reg_list;                   /* ds_client_reg_t.client_link */
    dbly_head_t    service_list;               /* ds_service_t.client_link */
    uint32_t       reg_handle_counter;
    uint32_t       client_idx;
    char           name[256];
    uint32_t       services_published;
    uint32_t       services_updated;
    uint32_t       services_deleted;
    uint32_t       registrations_added;
    uint32_t       registrations_deleted;
    uint64_t       last_activity_time;
    uint32_t       nnotifs;
} ds_client_t;

typedef struct ds_service_elem {
    avl_node_t  tree_link;                     /* first: element address == tree node address */
    char       *name;
    uint64_t    name_len;
    uint64_t    name_hash;
    uint64_t    selem_version;
    dbly_head_t service_list;                  /* ds_service_t.selem_link */
    dbly_head_t reg_list;                      /* ds_client_reg_t.selem_link */
    uint64_t    last_add_time;
    uint64_t    last_delete_time;
    uint64_t    last_modify_time;
    uint64_t    last_reg_time;
    uint64_t    last_unreg_time;
    uint32_t    local_services_added;
    uint32_t    remote_services_added;
    uint32_t    local_services_deleted;
    uint32_t    remote_services_deleted;
    uint32_t    local_services_updated;
    uint32_t    remote_services_updated;
    uint32_t    registrations_added;
    uint32_t    registrations_deleted;
    uint32_t    nnotifs;
    uint32_t    remote_change_count;
    uint32_t    relay_updates_sent;            /* updates handed to the relay for its services */
} ds_service_elem_t;

typedef struct ds_service {
    uint32_t                 service_id;
    uint32_t                 proc_id;
    uint32_t                 pid;
    ds_node_t               *node;
    uint64_t                 name_hash;
    uint32_t                 gen;
    uint32_t                 prev_ver;
    uint32_t                 flags;
    ds_service_publish_info *publish_info;
    uint32_t                 scope;
    char                    *instance;
    ds_service_elem_t       *selem;
    dbly_linkage_t           selem_link;
    dbly_linkage_t           client_link;
    uint64_t                 added_time;
    uint64_t                 update_time;
    uint64_t                 last_relay_send_time;
} ds_service_t;

typedef struct ds_client_reg {
    ds_client_t       *client;
    ds_service_elem_t *selem;
    dbly_linkage_t     selem_link;
    dbly_linkage_t     client_link;
    uint64_t           reg_arg;
    uint32_t           handle;
    uint64_t           creg_ver;
    uint64_t           created_time;
    uint64_t           last_notif_time;
    uint32_t           nnotifs;
    uint64_t           name_hash;
} ds_client_reg_t;

typedef struct ds_dsr_service_ref { uint32_t id; uint32_t gen; } ds_dsr_service_ref_t;

/* ---- host callbacks (slots 41, 44, 45, 46, 47); results of the first two types are ignored ---- */
typedef int (*ds_notify_hook_fn)(ds_service_elem_t *selem, ds_service_publish_info *publish_info);   /* publish_info == the message's address */
typedef int (*ds_client_send_fn)(uint64_t client_hdl, ds_notif_msg *msg);   /* slots 44 and 45 */
typedef long (*ds_client_pid_fn)(uint64_t client_hdl);
typedef const char *(*ds_client_name_fn)(uint64_t client_hdl);
/* ---- iterator callbacks; their results are ignored ---- */
typedef void *(*ds_client_iter_fn)(ds_client_t *client, void *ctx);
typedef void *(*ds_service_iter_fn)(ds_service_t *service, void *ctx);
typedef void *(*ds_client_reg_iter_fn)(ds_client_reg_t *reg, void *ctx);

/* ---- exported data ---- */
extern ds_globals_t       *ds_globals_p;                          /* null before ds_globals_set */
extern rtrace_handle_t     ds_lib_rtrace[DS_CHANNEL_COUNT];       /* null = channel not open */
extern const zul_msg_rec_t zul_msg_rec_directory_service_duplicated_service;

/* ---- frame ---- */
int            ds_server_lib_init(const uint64_t *options);       /* five options or null; 0 success, 1 failure */
ds_globals_t **ds_globals_set(ds_globals_t *block);               /* returns &ds_globals_p */
ds_globals_t  *ds_globals_get(void);
uint64_t       ds_hash_string(const void *bytes, uint64_t length);
const zul_msg_rec_t *zul_msg_rec_directory_service_duplicated_service_getfn(void);

/* ---- database and clients ---- */
int          ds_db_init(void);
int          ds_db_init_client(ds_client_t **client_out);
int          ds_db_free_client(ds_client_t *client);
int          ds_db_add_client(ds_client_t *client);
int          ds_db_delete_client(ds_client_t *client);
ds_client_t *ds_db_find_client_by_client_hdl(uint64_t client_hdl);
ds_client_t *ds_db_find_client_by_client_idx(uint32_t client_idx);
uint32_t     ds_db_get_client_count(const char *name);
void        *ds_db_client_iter(ds_client_iter_fn fn, void *ctx);  /* returns null; successor read AFTER fn */
long         ds_client_pid(ds_client_t *client);
int          ds_client_get_name(ds_client_t *client, char *buffer, size_t size);
ds_client_t     *ds_client_get_client_list_head(void);
ds_client_t     *ds_client_get_next_in_client_list(ds_client_t *client);
ds_service_t    *ds_client_get_service_list_head(ds_client_t *client);
ds_service_t    *ds_client_get_next_in_service_list(ds_service_t *service);
ds_client_reg_t *ds_client_get_client_reg_list_head(ds_client_t *client);
ds_client_reg_t *ds_client_get_next_in_client_reg_list(ds_client_reg_t *reg);
ds_service_t    *ds_service_get_service_list_head(ds_service_elem_t *selem);
ds_service_t    *ds_service_get_next_in_service_list(ds_service_t *service);
ds_client_reg_t *ds_service_get_client_reg_list_head(ds_service_elem_t *selem);
ds_client_reg_t *ds_service_get_next_in_client_reg_list(ds_client_reg_t *reg);

/* ---- service elements and services ---- */
int      ds_db_init_service_element(const char *name, ds_service_elem_t **selem_out);
int      ds_db_free_service_element(ds_service_elem_t *selem);    /* 0 */
int      ds_db_add_service_element(ds_service_elem_t *selem);
int      ds_db_delete_service_element(ds_service_elem_t *selem);
int      ds_db_find_service_element(const char *name, ds_service_elem_t **selem_out);
int      ds_db_service_element_has_services(ds_service_elem_t *selem, uint32_t scope);                            /* 1 or 0 */
int      ds_db_service_element_has_remote_services(ds_service_elem_t *selem, ds_node_t *node, uint32_t scope);    /* 1 or 0 */
int      ds_db_service_element_has_registrations(ds_service_elem_t *selem);                                       /* 1 or 0 */
uint32_t ds_db_get_registered_service_count(const char *name);
uint32_t ds_db_get_published_service_count(const char *name, uint32_t scope);
uint32_t ds_db_get_remote_published_service_count(const char *name, ds_node_t *node, uint32_t scope);
int      ds_db_init_service(uint32_t proc_id, ds_node_t *node, ds_service_publish_info *publish_info, uint64_t name_hash,
                            ds_service_t **service_out, ds_client_t *client, ds_service_elem_t *selem, uint32_t service_id);
int      ds_db_free_service(ds_service_t *service);               /* 0; takes no lock; does not free service->instance */
int      ds_db_add_service(ds_service_t *service, ds_client_t *client);
int      ds_db_update_service(ds_service_t *service, ds_service_publish_info *publish_info, ds_client_t *client);
int      ds_db_delete_service(ds_service_t *service, ds_client_t *client);
int      ds_db_find_service(const char *name, const char *instance, uint32_t proc_id, uint32_t scope, ds_node_t *node,
                            ds_service_elem_t **selem_out, ds_service_t **service_out, uint32_t service_id);      /* 0 always */
int      ds_db_service_endpoints_equal(ds_service_t *service, ds_service_publish_info *publish_info);             /* 1 or 0 */
int      ds_db_services_iter(ds_service_iter_fn fn, void *ctx);   /* avl_walk's result; successor read BEFORE fn */

/* ---- registration records ---- */
int ds_db_init_client_registration(ds_client_t *client, const char *name, uint64_t reg_arg, ds_client_reg_t **reg_out);
int ds_db_free_client_registration(ds_client_reg_t *reg);
int ds_db_add_client_registration(ds_client_reg_t *reg, ds_client_t *client, ds_service_elem_t *selem);
int ds_db_delete_client_registration(ds_client_reg_t *reg);
int ds_db_client_reg_iter(ds_client_reg_iter_fn fn, void *ctx);   /* avl_walk's result; successor read AFTER fn */

/* ---- publishing and withdrawing ---- */
int  ds_db_publish_service(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info, const ds_dsr_service_ref_t *dsr_ref);
int  ds_db_unpublish_service(uint32_t client_idx, ds_node_t *node, const ds_service_key_t *key, const ds_dsr_service_ref_t *dsr_ref);
void ds_db_handle_service_down(ds_service_t *service, ds_client_t *client);

/* ---- registrations, notifications, dump responses ---- */
int ds_db_add_new_registration(const char *service_name, ds_client_t *client, uint64_t reg_value, ds_client_reg_t **reg_out);
int ds_db_delete_registration(const char *service_name, ds_client_t *client, uint32_t handle);
int ds_prepare_notif_message(ds_service_elem_t *selem, ds_service_publish_info *publish_info, uint32_t *count_out);
int ds_notify(ds_service_elem_t *selem);
int ds_notify_client(ds_client_reg_t *reg, ds_service_elem_t *selem);
int ds_prepare_dump_resp_info(const char *service_name, const uint8_t *ethaddr, uint32_t scope, ds_dump_resp_info *resp,
                              uint32_t *selem_count_out, uint32_t *client_count_out);

/* ---- relay ---- */
int      ds_remote_notify(ds_service_t *service, uint32_t request);
uint64_t platform_get_nodeid_from_ethaddr(const uint8_t *address);   /* a ds_node_t address, or 0..127 when out of memory */
int dsr_receive_cb(uint32_t operation, const uint8_t *sender, const char *service_name, uint32_t service_id,
                   const char *instance, uint32_t scope, uint32_t pid, uint32_t version, const void *ep_bytes,
                   uint64_t ep_len, const void *attr_bytes, uint64_t attr_len);
int dsr_connect_cb(void);
int dsr_disconn_cb(void);
int dsr_peer_down_cb(const uint8_t *address);
int ds_db_node_down(uint64_t node_id);
int ds_db_dsr_restarted(void);
int ds_db_finalize_restart(void);

/* ---- dumps and traces ---- */
void  ds_db_dump(uint32_t unused);
void  ds_db_reg_dump(uint32_t unused);
void  trace_endpoints(ds_service_t *service, rtrace_handle_t channel);
void *trace_service_info(ds_service_t *service, void *channel);       /* null; is a ds_service_iter_fn */
void *trace_client_reg_info(ds_client_reg_t *reg, void *channel);     /* null; is a ds_client_reg_iter_fn */

#ifdef __cplusplus
}
#endif
#endif
