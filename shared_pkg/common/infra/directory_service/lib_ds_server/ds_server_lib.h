/*
 * The directory service's server library, as a host program sees it.
 *
 * One process holds one directory in memory. Clients publish service instances under names and
 * register interest in names; after each change of a name every client registered on it is handed
 * the whole set of its live instances. Publications wider than the node go to a relay, and the
 * relay's publications of other nodes stand in the same directory. The library has no thread, no
 * socket and no timer loop: it learns through the calls below, and it tells through the host's
 * callbacks (slots 41 to 47 of the global state block) and dsr_dsc_send_update.
 *
 * Life. Start in this order; there is no tear-down, the directory lives as long as the process:
 *   1. ds_server_lib_init     opens the trace channels
 *   2. ds_globals_set         installs the host's block, its callbacks filled in
 *   3. ds_db_init             creates the database (slot 14)
 *   4. slot 39                the host stores platform_get_nodeid_from_ethaddr(own address)
 * A failed ds_db_init is fatal: slot 14 then names freed memory, so the host must stop.
 *
 * Threads and re-entry. The host makes one call at a time, whatever thread it makes it on. The
 * database mutex is not recursive and covers only linking, unlinking and counting. Callbacks run
 * on the caller's thread, inside the call:
 *   - 46 and 47 run under the mutex in ds_db_add_client: they must not call the library.
 *   - 41, 44 and 45 run without it. They may read, but must not change the element being notified
 *     nor its registrations: the next registration is read only after one was served.
 *   - dsr_dsc_send_update must leave the service alone that is being sent.
 *   - Freeing a publish info and writing the console can also happen under the mutex.
 *
 * Memory. Records come zero-filled from the library's pools, through the init functions only, and
 * go back through the free and delete functions. Names given to a function are copied. A publish
 * info changes hands: read its `held` marker right after the call. 1: a service record took it;
 * its strings and entries, and the structure itself unless `borrowed` is 1, are the library's and
 * released with free(), so they must come from malloc. 0, after any result: it is still the
 * caller's. A borrowed structure can be given once only, since its contents have gone.
 *
 * How long pointers stay good. Database context and node records: for ever. A client: until
 * ds_db_delete_client. A registration: until it or its client is deleted. A service: until it is
 * withdrawn, its client departs, its node goes down or a restart period settles it. An element:
 * until its last service is withdrawn while nobody is registered. A service's publish info: until
 * its next update. A notification message: during the callback. A dump response: until the next
 * change of the directory.
 *
 * Results. Functions that return int give 0 for success and -1 for failure, unless said otherwise.
 * A null argument that is not said to be allowed, or a missing database, gives -1 with nothing
 * changed (0 from a count or test, null from a look-up). Output parameters are written on success
 * only, unless said otherwise. Memory exhaustion is a failure like any other, but in dumps.
 *
 * Words. A service is local when its `node` is the pointer in slot 39, else remote. A placeholder
 * is a service that the relay replayed and no client owns (`proc_id` 1): it is neither shown nor
 * notified. Scopes rack and system are replicated, that is sent to the relay. A restart period is
 * open while its timer runs: the own one (slot 2, the host's) or the relay's (slot 3).
 */
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

/* ---- the global state block: the host allocates, fills and keeps it ---- */

/* A slot holds a pointer or a number in 64 bits, 0 for none. Slots without a name are the host's.
   The host writes all but 3, 14 and 40. */
enum {
    DS_GLOBAL_SLOT_TIMER_PARENT = 0,        /* mgd_timer_t *, parent of the relay restart timer */
    DS_GLOBAL_SLOT_TIMER_CONTEXT = 1,       /* number, context of the relay restart timer */
    DS_GLOBAL_SLOT_OWN_RESTART_TIMER = 2,   /* mgd_timer_t *, the host's; 0: no own period */
    DS_GLOBAL_SLOT_RELAY_RESTART_TIMER = 3, /* mgd_timer_t *; written by dsr_disconn_cb */
    DS_GLOBAL_SLOT_DB = 14,                 /* ds_db_t *; written by ds_db_init */
    DS_GLOBAL_SLOT_CONSOLE = 16,            /* FILE *, second sink of every log point */
    DS_GLOBAL_SLOT_LOCAL_NODE = 39,         /* ds_node_t *, this node */
    DS_GLOBAL_SLOT_RELAY_CONNECTED = 40,    /* first byte only: 1 connected; written by dsr_*_cb */
    DS_GLOBAL_SLOT_NOTIFY_HOOK = 41,        /* ds_notify_hook_fn, once per notification run */
    DS_GLOBAL_SLOT_CLIENT_SEND = 44,        /* ds_client_send_fn, delivers a message */
    DS_GLOBAL_SLOT_CLIENT_DELETE = 45,      /* ds_client_send_fn, before 44 for a deletion */
    DS_GLOBAL_SLOT_CLIENT_PID = 46,         /* ds_client_pid_fn; 0: every pid reads 0 */
    DS_GLOBAL_SLOT_CLIENT_NAME = 47,        /* ds_client_name_fn; 0: names stay empty */
    DS_GLOBAL_SLOT_COUNT = 48
};
typedef struct ds_globals {
    uint64_t slot[DS_GLOBAL_SLOT_COUNT];
} ds_globals_t;

/* ---- trace channels, and the fault message that the host's message facility may raise ---- */

/* Channel indexes. pub: services; reg: registrations; err: failures; notif: notifications; main:
   relay connection and dumps. */
enum {
    DS_CHANNEL_PUB = 0,
    DS_CHANNEL_REG = 1,
    DS_CHANNEL_ERR = 2,
    DS_CHANNEL_NOTIF = 3,
    DS_CHANNEL_MAIN = 4,
    DS_CHANNEL_COUNT = 5
};
typedef struct zul_msg_rec { /* nine 64-bit words, 72 bytes */
    const void *word0;       /* null */
    const char *format;      /* printf format: pid (%ld), service name, instance */
    const void *word2;       /* null */
    const char *facility;    /* "Directory_Service" */
    const char *category;    /* "INFRA" */
    const char *mnemonic;    /* "DUPLICATED_SERVICE" */
    uint64_t word6;          /* 0x30000, the message facility's */
    uint64_t word7;          /* 0 */
    uint64_t word8;          /* 0x113a0000, the message facility's */
} zul_msg_rec_t;

/* ---- codes ---- */

/* Scope of a service. NONE is accepted and stays on the node; ANY is for queries only. */
enum {
    DS_SCOPE_NONE = 0,
    DS_SCOPE_RACK = 1,
    DS_SCOPE_SYSTEM = 2,
    DS_SCOPE_LOCAL = 3,
    DS_SCOPE_ANY = 4
};
/* ds_service_t.flags. CONFIRMED: carries the relay's id and generation. RECONCILE: a client
   published it in the own restart period, or it is remote and waits to be replayed. */
enum { DS_SERVICE_FLAG_DSR_CONFIRMED = 0x1, DS_SERVICE_FLAG_RECONCILE = 0x2 };
/* proc_id of a placeholder. The test is equality with 1, so slot 46 should never return 1. */
enum { DS_PROC_ID_FROM_DSR = 1 };
/* Request of ds_remote_notify. */
enum { DS_REMOTE_PUBLISHED = 1, DS_REMOTE_WITHDRAWN = 2 };

enum { DS_FOUND_CLIENTS = 4096 }; /* so many clients with indexes in a row are found at once */

/* ---- records ----
 *
 *  ds_db_t
 *   +-- node_table    6 address bytes -> ds_node_t; records are added, never removed
 *   |
 *   +-- client_list -------------------> client 11 -----> client 12            ds_client_t
 *   |                                      |                |
 *   |                                      | service_list   | service_list
 *   |                                      v                v
 *   +-- selem_tree (ds_service_elem_t)     |                |
 *        +-- "db"  -- service_list -----> service -----> service ----> service  ds_service_t
 *        |                                 |                |         (remote: no client)
 *        |                                 v                |
 *        +-- "web" -- service_list -----> service           v
 *        |                                                null
 *        +-- ...
 *
 * Across runs selem_link (one element), down runs client_link (one client). Registrations
 * (ds_client_reg_t) form a second net of the same shape, from reg_list to reg_list. Lists are
 * doubly linked, null-terminated, newest first; only client_list is ordered otherwise: clients of
 * one process stand together. The tree is ordered by name length, then bytes: a, ab, bb.
 *
 * The library writes every field but those marked "host". Counters are 32 bits wide and wrap.
 * Times are stamps of fts_get_stamp_fast, 0 for never. Times and counters serve the dumps.
 */
typedef struct ds_db {
    chunk_pool_t *client_pool;              /* of ds_client_t */
    chunk_pool_t *client_reg_pool;          /* of ds_client_reg_t */
    chunk_pool_t *service_pool;             /* of ds_service_t */
    chunk_pool_t *selem_pool;               /* of ds_service_elem_t */
    avl_root_t selem_tree;                  /* ds_service_elem_t.tree_link */
    dbly_head_t client_list;                /* ds_client_t.client_link */
    vanto_protected_hashtable_t node_table; /* ds_node_t by its 6 address bytes, 128 buckets */
    uint32_t client_idx_counter;            /* index handed out last; 10 before the first client */
    uint32_t next_service_id;               /* id handed out next; starts at the host's pid << 16 */
    pthread_mutex_t mutex;                  /* ordinary; see "Threads and re-entry" */
    uint32_t clients_added;
    uint32_t clients_deleted;
    uint64_t last_client_add_time;
    uint64_t last_client_delete_time;
    uint32_t local_services_added;   /* placeholders are not counted */
    uint32_t remote_services_added;  /* placeholders are counted too */
    uint32_t local_services_deleted; /* removals by node-down and restart are not counted */
    uint32_t remote_services_deleted;
    uint32_t local_services_updated;
    uint32_t remote_services_updated;
    uint32_t registrations_added;
    uint32_t registrations_deleted;
    uint32_t nnotifs;            /* registrations visited by ds_notify, served or not */
    uint32_t relay_updates_sent; /* sum of the three below */
    uint32_t relay_adds_sent;
    uint32_t relay_deletes_sent;
    uint32_t relay_modifies_sent;
    uint32_t relay_updates_received; /* handed to publish or unpublish; not those turned back */
    uint32_t relay_spare_counter;    /* always 0; dumped */
    struct ds_client *found_clients[DS_FOUND_CLIENTS]; /* private: clients by index, modulo */
} ds_db_t;

typedef struct ds_node {       /* its address is the node id; made on first sight, never freed */
    uint8_t *addr;             /* private copy of the 6 address bytes; key in node_table */
    char name[18];             /* "%02x:%02x:%02x:%02x:%02x:%02x" */
    uint32_t services_added;   /* of this node; placeholders are not counted */
    uint32_t services_deleted; /* as in ds_db_t, without node-down and restart */
    uint32_t services_updated;
    uint64_t last_change_time; /* of the three above */
    uint64_t last_down_time;
    uint32_t down_count;
} ds_node_t;

typedef struct ds_client {
    uint64_t client_hdl;         /* host: opaque, identifies the client in slots 44 to 47 */
    dbly_linkage_t client_link;  /* in ds_db_t.client_list; both null while not listed */
    dbly_head_t reg_list;        /* ds_client_reg_t.client_link */
    dbly_head_t service_list;    /* ds_service_t.client_link */
    uint32_t reg_handle_counter; /* registration handle handed out last; 0 before the first */
    uint32_t client_idx;         /* 11, 12, 13 ...; never used again; 0 until added */
    char name[256];              /* host, or left empty for slot 47; zero-terminated */
    uint32_t services_published;
    uint32_t services_updated;
    uint32_t services_deleted;
    uint32_t registrations_added;
    uint32_t registrations_deleted;
    uint64_t last_activity_time; /* of its services, registrations and notifications */
    uint32_t nnotifs;            /* notifications sent to it */
} ds_client_t;

typedef struct ds_service_elem { /* everything about one service name */
    avl_node_t tree_link;        /* first: the element's address is the tree node's address */
    char *name;                  /* private copy, zero-terminated */
    uint64_t name_len;           /* bytes without the zero */
    uint64_t name_hash;          /* ds_hash_string of the name */
    uint64_t selem_version;      /* 0 at first; rises with each change of its services */
    dbly_head_t service_list;    /* ds_service_t.selem_link */
    dbly_head_t reg_list;        /* ds_client_reg_t.selem_link */
    uint64_t last_add_time;
    uint64_t last_delete_time;
    uint64_t last_modify_time; /* of an update or a deletion */
    uint64_t last_reg_time;
    uint64_t last_unreg_time;
    uint32_t local_services_added; /* this and the next five as in ds_db_t, for this name */
    uint32_t remote_services_added;
    uint32_t local_services_deleted;
    uint32_t remote_services_deleted;
    uint32_t local_services_updated;
    uint32_t remote_services_updated;
    uint32_t registrations_added;
    uint32_t registrations_deleted;
    uint32_t nnotifs;             /* registrations visited, served or not */
    uint32_t remote_change_count; /* counted adds, updates and deletes of remote services */
    uint32_t relay_updates_sent;  /* updates handed to the relay for its services */
} ds_service_elem_t;

typedef struct ds_service { /* one published instance */
    uint32_t service_id;    /* the relay's, or pid of the host << 16 + serial */
    uint32_t proc_id;       /* client_idx of the publisher; remote: its pid; 1: placeholder */
    uint32_t pid;           /* process id of the publisher */
    ds_node_t *node;        /* the publisher's; 0 to 127 stand in for a record, never followed */
    uint64_t name_hash;     /* the element's */
    uint32_t gen;           /* 1 when made, +1 per update; a replay stores the relay's */
    uint32_t prev_ver;      /* gen that the relay knows; 0: never exchanged */
    uint32_t flags;         /* DS_SERVICE_FLAG_*; 0 until a restart period */
    ds_service_publish_info *publish_info; /* held; an update replaces it */
    uint32_t scope;                        /* DS_SCOPE_* when made; an update leaves it */
    char *instance;             /* private copy when made, null for none; an update leaves it */
    ds_service_elem_t *selem;   /* owner */
    dbly_linkage_t selem_link;  /* in the element's service_list */
    dbly_linkage_t client_link; /* in the client's service_list; null without a client */
    uint64_t added_time;
    uint64_t update_time;
    uint64_t last_relay_send_time;
} ds_service_t;

typedef struct ds_client_reg {  /* one client's interest in one name */
    ds_client_t *client;        /* owner */
    ds_service_elem_t *selem;   /* the name; null until added */
    dbly_linkage_t selem_link;  /* in the element's reg_list */
    dbly_linkage_t client_link; /* in the client's reg_list */
    uint64_t reg_arg;           /* host: given at registration, returned in each message */
    uint32_t handle;            /* 1, 2, 3 ... per client; not used again while the client lives */
    uint64_t creg_ver;          /* selem_version sent last; 0: nothing was sent yet */
    uint64_t created_time;
    uint64_t last_notif_time;
    uint32_t nnotifs;   /* notifications sent for it */
    uint64_t name_hash; /* ds_hash_string of the name */
} ds_client_reg_t;

/* The relay's identity of a service: its id (0 reads as none) and its generation. */
typedef struct ds_dsr_service_ref {
    uint32_t id;
    uint32_t gen;
} ds_dsr_service_ref_t;

/* ---- callbacks ---- */

/* Slot 41: the element, and the message's publish info before it is addressed to anyone; its
   address is also that of the ds_notif_msg. Slots 44, 45: a filled message, not encoded. The host
   encodes or copies before it returns. Results are ignored: a lost message is not sent again. */
typedef int (*ds_notify_hook_fn)(ds_service_elem_t *selem, ds_service_publish_info *publish_info);
typedef int (*ds_client_send_fn)(uint64_t client_hdl, ds_notif_msg *msg);
/* Slot 46: the client's process id, 2 or above. Slot 47: its process name or path, zero-terminated,
   the host's, read at once; null for unknown. */
typedef long (*ds_client_pid_fn)(uint64_t client_hdl);
typedef const char *(*ds_client_name_fn)(uint64_t client_hdl);
/* Iterators: the record and the ctx given to the iterator. Results are ignored. */
typedef void *(*ds_client_iter_fn)(ds_client_t *client, void *ctx);
typedef void *(*ds_service_iter_fn)(ds_service_t *service, void *ctx);
typedef void *(*ds_client_reg_iter_fn)(ds_client_reg_t *reg, void *ctx);

/* ---- exported data ---- */

extern ds_globals_t *ds_globals_p; /* the installed block; null before ds_globals_set */
extern rtrace_handle_t ds_lib_rtrace[DS_CHANNEL_COUNT]; /* by DS_CHANNEL_*; null: not open */
extern const zul_msg_rec_t zul_msg_rec_directory_service_duplicated_service;

/* ---- frame ---- */

/* Opens the five trace channels. options: five open options in channel order, passed on unchanged,
   or null for zeros. 1: one failed, stderr names it; those before it stay open, later ones are not
   tried and the library can be used, its closed channels write nothing. */
int ds_server_lib_init(const uint64_t *options);
/* Installs the host's block, which must outlive every later call. Returns &ds_globals_p. */
ds_globals_t **ds_globals_set(ds_globals_t *block);
/* The installed block, null for none. */
ds_globals_t *ds_globals_get(void);
/* djb2 of exactly `length` bytes, zeros included, in 64 bits; 5381 for no bytes. */
uint64_t ds_hash_string(const void *bytes, uint64_t length);
/* Address of the fault message. No function of the library raises it. */
const zul_msg_rec_t *zul_msg_rec_directory_service_duplicated_service_getfn(void);

/* ---- database and clients ---- */

/* Creates pools, node table and mutex and stores the context in slot 14; with slot 14 set it does
   nothing. -1: no block, no memory, or no mutex (logged); do not call it again. */
int ds_db_init(void);
/* Takes a client from the pool; the host sets client_hdl, and name when it knows better than
   slot 47. -1: pool exhausted. */
int ds_db_init_client(ds_client_t **client_out);
/* Returns a client that was never added, or is no longer listed, to the pool. */
int ds_db_free_client(ds_client_t *client);
/* Lists a client: gives it its index, puts it behind the first client of the same pid or else at
   the head, and fills an empty name with the last path component from slot 47. Calls slot 46 and
   perhaps 47 under the mutex. -1: already listed; nothing changed. */
int ds_db_add_client(ds_client_t *client);
/* The client departs: delists it, deletes its registrations, then takes each of its services down
   as ds_db_handle_service_down does, and returns the record to the pool. The client itself is not
   told. Elements that only lost registrations stay. */
int ds_db_delete_client(ds_client_t *client);
/* The first client with that host handle, or that index; null for none. Linear. */
ds_client_t *ds_db_find_client_by_client_hdl(uint64_t client_hdl);
ds_client_t *ds_db_find_client_by_client_idx(uint32_t client_idx);
/* Clients with that process name, compared over 256 bytes; all for null. */
uint32_t ds_db_get_client_count(const char *name);
/* Calls fn for each client in list order; returns null. The successor is read AFTER fn returned,
   so fn must not delete its client. */
void *ds_db_client_iter(ds_client_iter_fn fn, void *ctx);
/* Slot 46 for this client; 0 for a null client or an empty slot. */
long ds_client_pid(ds_client_t *client);
/* Copies the process name as snprintf does with `size` bytes and returns the length it wanted. */
int ds_client_get_name(ds_client_t *client, char *buffer, size_t size);

/* List accessors: first member, and the member behind one; null at the end and for null. In
   ds_service_ names "service" is an element. Take the next member before the current may go. */
ds_client_t *ds_client_get_client_list_head(void);
ds_client_t *ds_client_get_next_in_client_list(ds_client_t *client);
ds_service_t *ds_client_get_service_list_head(ds_client_t *client);
ds_service_t *ds_client_get_next_in_service_list(ds_service_t *service);
ds_client_reg_t *ds_client_get_client_reg_list_head(ds_client_t *client);
ds_client_reg_t *ds_client_get_next_in_client_reg_list(ds_client_reg_t *reg);
ds_service_t *ds_service_get_service_list_head(ds_service_elem_t *selem);
ds_service_t *ds_service_get_next_in_service_list(ds_service_t *service);
ds_client_reg_t *ds_service_get_client_reg_list_head(ds_service_elem_t *selem);
ds_client_reg_t *ds_service_get_next_in_client_reg_list(ds_client_reg_t *reg);

/* ---- service elements ---- */

/* Makes an element of that name, copied; it is in no tree yet. -1: out of memory. */
int ds_db_init_service_element(const char *name, ds_service_elem_t **selem_out);
/* Frees an element that is in no tree. */
int ds_db_free_service_element(ds_service_elem_t *selem);
/* Inserts an element. -1: the tree refused it, as when the name exists (logged); the caller still
   owns the element. */
int ds_db_add_service_element(ds_service_elem_t *selem);
/* Removes an element from the tree and frees it. Both its lists must be empty. */
int ds_db_delete_service_element(ds_service_elem_t *selem);
/* Finds the element of exactly that name. -1: there is none, *selem_out is null. */
int ds_db_find_service_element(const char *name, ds_service_elem_t **selem_out);
/* 1 when the element has a service, not a placeholder, of that scope (DS_SCOPE_ANY for any); in
   the second form one of that node. 0 otherwise. */
int ds_db_service_element_has_services(ds_service_elem_t *selem, uint32_t scope);
int ds_db_service_element_has_remote_services(ds_service_elem_t *selem, ds_node_t *node,
                                              uint32_t scope);
/* 1 when somebody is registered, else 0. */
int ds_db_service_element_has_registrations(ds_service_elem_t *selem);
/* Elements that pass the test of the same name above. With a name the answer is 1 or 0, and the
   first element in tree order decides whose own name begins `name`: "a" hides "ab". */
uint32_t ds_db_get_registered_service_count(const char *name);
uint32_t ds_db_get_published_service_count(const char *name, uint32_t scope);
uint32_t ds_db_get_remote_published_service_count(const char *name, ds_node_t *node,
                                                  uint32_t scope);

/* ---- service records: steps of publishing; a host calls ds_db_publish_service instead ---- */

/* Makes a record with gen 1 that holds publish_info; it is in no list yet. proc_id: the publisher's
   index, or DS_PROC_ID_FROM_DSR. client: the publisher, null for none; pid is its pid, else
   proc_id. service_id 0: the next serial, which a failure uses up. -1: out of memory (a publish
   info that could not be copied is logged); the caller still owns publish_info. */
int ds_db_init_service(uint32_t proc_id, ds_node_t *node, ds_service_publish_info *publish_info,
                       uint64_t name_hash, ds_service_t **service_out, ds_client_t *client,
                       ds_service_elem_t *selem, uint32_t service_id);
/* Releases the publish info, unlinks and frees the record: 0, also for null. It takes no lock,
   counts nothing and leaves service->instance to the caller, who reads the pointer before. */
int ds_db_free_service(ds_service_t *service);
/* Links a record at the head of its element's list and, given a client, of the client's; raises
   selem_version and counts. -1: it has no element. */
int ds_db_add_service(ds_service_t *service, ds_client_t *client);
/* Replaces the publish info, releases the old one; raises gen and selem_version and counts. scope
   and instance stay. A placeholder given a client joins the client's list; its proc_id is left to
   the caller. 0 without effect: it has no element. -1: out of memory, the old info stays. */
int ds_db_update_service(ds_service_t *service, ds_service_publish_info *publish_info,
                         ds_client_t *client);
/* Unlinks and frees a record with its instance: 0, also for null. Unless it is a placeholder,
   raises selem_version and counts. Tells nobody. */
int ds_db_delete_service(ds_service_t *service, ds_client_t *client);
/* Finds the newest service of a name that passes every given test; 0 always. instance: a prefix of
   the service's, null for any. proc_id: the service's, 0 for any; a placeholder passes, but in the
   relay's restart period only with that pid. node, service_id: 0 for any. scope: 0 for any, not
   looked at when proc_id and node are 0. With elements in the tree *selem_out is set, null for no
   such name; *service_out is written on a match only, so set both to null before. */
int ds_db_find_service(const char *name, const char *instance, uint32_t proc_id, uint32_t scope,
                       ds_node_t *node, ds_service_elem_t **selem_out, ds_service_t **service_out,
                       uint32_t service_id);
/* 1 when both have the same number of endpoints, not 0, and each pair has equal type and bytes;
   else 0. */
int ds_db_service_endpoints_equal(ds_service_t *service, ds_service_publish_info *publish_info);
/* Calls fn for each service, elements in tree order, newest service first; returns 1. The
   successor is read BEFORE fn is called, so fn may delete its service, and its element with it. */
int ds_db_services_iter(ds_service_iter_fn fn, void *ctx);

/* ---- registration records: steps of registering; a host calls ds_db_add_new_registration ---- */

/* Makes a registration with the client's next handle; it is in no list yet. name: only its hash is
   kept. reg_arg: any number of the host's. -1: pool exhausted, no handle used up. */
int ds_db_init_client_registration(ds_client_t *client, const char *name, uint64_t reg_arg,
                                   ds_client_reg_t **reg_out);
/* Returns a registration that is in no list to the pool. */
int ds_db_free_client_registration(ds_client_reg_t *reg);
/* Links it at the head of both lists, sets its element, counts and logs. */
int ds_db_add_client_registration(ds_client_reg_t *reg, ds_client_t *client,
                                  ds_service_elem_t *selem);
/* Unlinks it from both lists, counts, logs and frees it. The element stays. */
int ds_db_delete_client_registration(ds_client_reg_t *reg);
/* As ds_db_services_iter, but the successor is read AFTER fn returned: fn must not delete its
   registration. */
int ds_db_client_reg_iter(ds_client_reg_iter_fn fn, void *ctx);

/* ---- publishing and withdrawing ---- */

/* Publishes a service. A service that ds_db_find_service matches is updated, else one is made; the
   element is made when the name is new. client_idx: the publisher's index, or its pid with dsr_ref.
   node: the publisher's. info: see "Memory". dsr_ref: the relay's identity of the service, null for
   a client of this node. Then, for a local service of replicated scope, and not in the own restart
   period, the relay is told; and the element's registrations are notified. In the relay's restart
   period, or about this node in the own one, a relay delivery is only matched, or entered as a
   placeholder: nobody is told.
   -1: no name; unknown client (an element made for it stays, empty); out of memory. All but the
   first are logged, an element refused by the tree by ds_db_add_service_element. */
int ds_db_publish_service(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                          const ds_dsr_service_ref_t *dsr_ref);
/* Withdraws the newest service that matches name, instance prefix (none: any) and scope of key, and
   takes it down. Other arguments as above. -1, logged: no name, unknown client of this node, or no
   such service; nothing changed. */
int ds_db_unpublish_service(uint32_t client_idx, ds_node_t *node, const ds_service_key_t *key,
                            const ds_dsr_service_ref_t *dsr_ref);
/* Removes a service. client: on whose behalf, null for the relay. With endpoints: the relay is told
   when it is local and of replicated scope, restart period or not, and the registrations are
   notified. Without: nobody is. Then the element goes when nothing is left on it, so neither
   pointer may be used afterwards. */
void ds_db_handle_service_down(ds_service_t *service, ds_client_t *client);

/* ---- registrations, notifications, dump responses ---- */

/* Registers a client for a name, which need not exist yet; each call makes one more registration.
   reg_value: returned as reg_cookie. Notifies nobody: see ds_notify_client. -1: out of memory,
   logged; an element made for it may stay, empty. */
int ds_db_add_new_registration(const char *service_name, ds_client_t *client, uint64_t reg_value,
                               ds_client_reg_t **reg_out);
/* Deletes the client's registration with that handle on that name; the element stays. -1, logged:
   no such name, or no such registration of this client on it. */
int ds_db_delete_registration(const char *service_name, ds_client_t *client, uint32_t handle);
/* Fills publish_info, which the caller cleared, with the element's name and the entries of its live
   services, newest first. The array is the caller's to free(); the entries are shallow copies and
   alias the services. *count_out: entries, 0 for none. -1 for null, or, logged, when the array
   cannot be allocated: then *count_out keeps the number. */
int ds_prepare_notif_message(ds_service_elem_t *selem, ds_service_publish_info *publish_info,
                             uint32_t *count_out);
/* Tells every registration that has not been sent this selem_version: slot 41 once, then slot 44
   for each; with no live entry slot 45 before it. Returns 0. */
int ds_notify(ds_service_elem_t *selem);
/* Tells one registration what is live, through slot 44, unless it was sent this version. With no
   live entry it is silent and changes nothing. Returns 0. */
int ds_notify_client(ds_client_reg_t *reg, ds_service_elem_t *selem);
/* Answers resp->request_flags: services (elements with services, and their registrations), else
   registrations, else clients. service_name: filter, a process name for clients, null for any; the
   response keeps the pointer. ethaddr: 6 bytes of a node, null for any; services only. scope:
   DS_SCOPE_*. Statistics are always set. One output receives the records counted, the other 0; the
   number filled stands in resp and can be lower. The caller frees the record array, even when its
   count is 0, and in each record service_infos and reg_entries; all else aliases the directory.
   Aborts the process when the record array cannot be allocated, and when a dumped service has
   other than one endpoint. A nested array that cannot be allocated is logged and left empty. */
int ds_prepare_dump_resp_info(const char *service_name, const uint8_t *ethaddr, uint32_t scope,
                              ds_dump_resp_info *resp, uint32_t *selem_count_out,
                              uint32_t *client_count_out);

/* ---- relay ---- */

/* Sends one service to the relay, while that is connected: published as an addition or, when the
   relay knows it, a change; withdrawn as a deletion, when the relay knows it. The caller checks
   node and scope. 0: sent, prev_ver is now gen; or nothing to send. -1: out of memory, logged. */
int ds_remote_notify(ds_service_t *service, uint32_t request);
/* The node id, a ds_node_t address, of 6 address bytes; a record is made on first sight. Out of
   memory: a number from 0 to 127 that names no record. 0 for null. */
uint64_t platform_get_nodeid_from_ethaddr(const uint8_t *address);
/* An update from the relay. operation: DSR_*, all but DSR_DELETE publish. sender: 6 bytes. version:
   the generation. instance, ep_bytes, attr_bytes may be null; lengths are bytes; all is copied.
   About this node, but not in the own restart period: turned back, the relay is sent a deletion of
   version + 1; 0. Else the result of publishing or withdrawing. -1 as well: out of memory (logged),
   and a deletion about this node. */
int dsr_receive_cb(uint32_t operation, const uint8_t *sender, const char *service_name,
                   uint32_t service_id, const char *instance, uint32_t scope, uint32_t pid,
                   uint32_t version, const void *ep_bytes, uint64_t ep_len, const void *attr_bytes,
                   uint64_t attr_len);
/* The relay connected: lengthens an open relay period to 40 s from now, sets slot 40 and, outside
   the own period, sends every local service of replicated scope as an addition. */
int dsr_connect_cb(void);
/* The relay went away: clears slot 40, marks the remote services, and stores a new timer of 30 s in
   slot 3. A timer left there is the host's to stop and release, before the call. */
int dsr_disconn_cb(void);
/* Another node went down: ds_db_node_down of 6 address bytes. -1: this node's address, logged. */
int dsr_peer_down_cb(const uint8_t *address);
/* Removes all services of a node, raises every selem_version, and notifies the registrations of
   each element that lost one. The relay is not told; empty elements stay. */
int ds_db_node_down(uint64_t node_id);
/* Marks every remote service as waiting for its replay. */
int ds_db_dsr_restarted(void);
/* Ends a restart period; the host calls it when the timer of slot 2 or 3 expires, before any other
   call. Local services of replicated scope: those published in the period are sent, those that only
   the relay knows are withdrawn and removed. Remote ones: those not replayed are removed, those
   entered by the replay appear. Elements that changed rise in version and are notified, once. */
int ds_db_finalize_restart(void);

/* ---- dumps and traces: log lines, to the trace channel and the console ---- */

/* All services, or all registrations, on channel "main". The argument is ignored. */
void ds_db_dump(uint32_t unused);
void ds_db_reg_dump(uint32_t unused);
/* One line per endpoint of a service; channel null: console only, here and below. */
void trace_endpoints(ds_service_t *service, rtrace_handle_t channel);
/* A header and a line per IP or path endpoint; null. A ds_service_iter_fn, ctx is the channel. */
void *trace_service_info(ds_service_t *service, void *channel);
/* One line; null. A ds_client_reg_iter_fn, ctx is the channel. */
void *trace_client_reg_info(ds_client_reg_t *reg, void *channel);

#ifdef __cplusplus
}
#endif
#endif
