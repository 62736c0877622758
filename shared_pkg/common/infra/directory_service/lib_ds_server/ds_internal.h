/*
 * What the library's own sources share. Nothing here is promised to a host; the functions have
 * linkage so that tests can call them. The log point stands in ds_trace.h.
 *
 * The rules of ds_server_lib.h hold here too: results, ownership, one call at a time. The functions
 * of the first three groups must not be called under the database mutex, the helpers behind them
 * may be.
 */
#ifndef DS_INTERNAL_H
#define DS_INTERNAL_H
#include <stdio.h>

#include "ds_server_lib.h"
#ifdef __cplusplus
extern "C" {
#endif

/* ---- lifecycle of a service ---- */

/* Hands a relay delivery to the resolver when a restart period asks for it: the own period for this
   node's services, the relay's for any. *replayed_out: 1 when it did, and the delivery is then
   dealt with, else 0. Returns 0 or the resolver's result. */
int ds_db_check_if_service_replayed_from_dsr(uint32_t client_idx, ds_node_t *node,
                                             ds_service_publish_info *info,
                                             ds_service_elem_t *selem,
                                             const ds_dsr_service_ref_t *dsr_ref,
                                             uint8_t *replayed_out);
/* Makes and links a record, lets it take over from the relay's copy in the own restart period,
   tells the relay where due, and notifies. client: null unless a client of this node publishes.
   dsr_id: the relay's id, 0 for the next serial. -1: it could not be made (logged); nobody was
   told. */
int ds_db_handle_service_new(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                             ds_service_elem_t *selem, ds_client_t *client, uint32_t dsr_id);
/* Gives a record its new publish info, gives a placeholder its client, marks the record in the own
   restart period, tells the relay where due, and notifies. 0 also when the info could not be
   taken: the old one stays and info->held stays 0. */
int ds_db_handle_service_modified(ds_service_t *service, ds_service_publish_info *info,
                                  ds_node_t *node, ds_service_elem_t *selem, ds_client_t *client);
/* A relay delivery in a restart period: stores the relay's id and generation in the record of the
   same node, pid and endpoints, else enters a placeholder. Nobody is told. info is taken only for
   a placeholder. -1: that could not be made (logged). */
int ds_db_resolve_service_info_from_dsr(uint32_t client_idx, ds_node_t *node,
                                        ds_service_publish_info *info, ds_service_elem_t *selem,
                                        const ds_dsr_service_ref_t *dsr_ref);
/* A new local record in the own restart period: marks it, and when it has a placeholder twin, moves
   the twin's id and generation to it and frees the twin. 0. */
int ds_db_resolve_service_entry_to_dsr(ds_service_t *service, ds_service_elem_t *selem);
/* avl_walk_fn, 1 always. Sets the flags of the element's remote services to RECONCILE alone. */
int ds_db_mark_remote_services(void *selem, void *unused);
/* avl_walk_fn, 1 always. Settles each service of the element at the end of a restart period and,
   when one changed, raises selem_version and notifies. local_node: the pointer in slot 39. */
int ds_db_resolve_service_element(void *selem, void *local_node);

/* ---- notifications and dump responses ---- */

/* Tells one registration from the message of the run, unless it was sent the element's version.
   msg: addressed to the registration here. count: live entries, 0 reports a deletion. 0. */
int ds_notify_client_expanded(ds_client_reg_t *reg, ds_service_elem_t *selem, ds_notif_msg *msg,
                              ds_service_publish_info *publish_info, uint32_t count);

typedef struct ds_dump_walk_ctx {      /* lives in one ds_prepare_dump_resp_info call */
    ds_dump_selem_info *selem_infos;   /* the response's array; null for a clients dump */
    ds_dump_client_info *client_infos; /* the response's array; null for an elements dump */
    uint32_t next_index;               /* first free record */
    const char *name_filter;           /* whole name; null: any */
    uint32_t scope_filter;             /* DS_SCOPE_ANY: any */
    uint64_t node_filter;              /* node id; 0: any */
    uint32_t capacity;                 /* records in the array */
    uint32_t request_flags;            /* DS_DUMP_REQ_* */
} ds_dump_walk_ctx;
/* Fill the array of one record, newest first, and *count with its length. The array is the
   response's. The service fillers apply the filters and set *count themselves; the registration
   fillers add to it. -1: the list is empty (record untouched), or out of memory (logged, array
   null, *count 0). A matching service with other than one endpoint aborts the process. */
int ds_fill_services(ds_service_elem_t *selem, ds_dump_selem_info *selem_info,
                     ds_dump_walk_ctx *walk_ctx, uint32_t *count);
int ds_fill_service_registrations(ds_service_elem_t *selem, ds_dump_selem_info *selem_info,
                                  ds_dump_walk_ctx *walk_ctx, uint32_t *count);
int ds_fill_client_services(ds_client_t *client, ds_dump_client_info *client_info,
                            ds_dump_walk_ctx *walk_ctx, uint32_t *count);
int ds_fill_client_registrations(ds_client_t *client, ds_dump_client_info *client_info,
                                 ds_dump_walk_ctx *walk_ctx, uint32_t *count);

/* ---- relay ---- */

/* Sends every local service of replicated scope as an addition, elements in tree order. 0. */
int ds_remote_send_all(void);
/* "aabb:ccdd:eeff" of 6 address bytes, "" for null; one static buffer, good until the next call. */
const char *ds_peer_addr_text(const uint8_t *address);

/* ---- names of codes: constant texts ---- */

const char *ds_scope_name(uint32_t scope);         /* RACK SYSTEM LOCAL, else UNKNOWN */
const char *ds_ha_role_name(uint32_t role);        /* ACTIVE STANDBY, else UNKNOWN */
const char *ds_issu_role_name(uint32_t role);      /* PRIMARY SECONDARY TERTIARY, else UNKNOWN */
const char *dsr_op_name(uint32_t operation);       /* blank padded to 10; UNKNOWN out of range */
const char *dsr_scope_name(uint32_t scope);        /* DSR_SCOPE_NONE ...; null out of range */
const char *dsr_scope_name_padded(uint32_t scope); /* blank padded to 16; null out of range */
const char *ds_node_name(const ds_node_t *node);   /* node->name, UNKNOWN for a stand-in */
int ds_node_is_record(const ds_node_t *node);      /* 0 for the ids 0 to 127, the stand-ins */

/* ---- small tests ---- */

/* Whether the record was made from a relay replay and no client owns it: not counted, not shown. */
static inline int ds_is_placeholder(const ds_service_t *service) {
    return service->proc_id == DS_PROC_ID_FROM_DSR;
}
/* Whether services of that scope travel to other nodes. */
static inline int ds_is_replicated(uint32_t scope) {
    return scope == DS_SCOPE_RACK || scope == DS_SCOPE_SYSTEM;
}

/* ---- global state: all answer 0 or null while no block is installed ---- */

static inline uint64_t ds_slot(uint32_t slot) { /* slot: DS_GLOBAL_SLOT_* */
    return ds_globals_p == NULL ? 0 : ds_globals_p->slot[slot];
}
static inline ds_db_t *ds_db_context(void) { /* slot 14 */
    return (ds_db_t *)(uintptr_t)ds_slot(DS_GLOBAL_SLOT_DB);
}
static inline ds_node_t *ds_local_node(void) { /* slot 39 */
    return (ds_node_t *)(uintptr_t)ds_slot(DS_GLOBAL_SLOT_LOCAL_NODE);
}
/* Whether the restart timer in that slot runs; the timer is asked only when there is one. */
static inline int ds_timer_running(uint32_t slot) {
    mgd_timer_t *timer = (mgd_timer_t *)(uintptr_t)ds_slot(slot);
    return timer != NULL && mgd_timer_leaf_running(timer) != 0;
}

/* ---- memory ---- */

/* Takes a publish info for a record: marks it held and returns it, or a copy of the top level when
   it is borrowed. Null: the copy failed, info is unchanged. */
ds_service_publish_info *ds_publish_info_hold(ds_service_publish_info *info);
/* Frees the contents, then the structure unless it is borrowed. Null ok. */
void ds_publish_info_release(ds_service_publish_info *info);
/* ds_db_free_service, then the instance text which that leaves behind. Null ok. */
void ds_db_drop_service(ds_service_t *service);
/* The text itself, "" for none: what a log line prints. */
static inline const char *ds_text(const char *text) {
    return text != NULL ? text : "";
}
/* A zero-terminated copy of `length` bytes, for free(); null when out of memory. */
char *ds_copy_text(const char *text, size_t length);

/* ---- console ---- */

/* The stream of slot 16; null for none. */
static inline FILE *ds_console(void) {
    return (FILE *)(uintptr_t)ds_slot(DS_GLOBAL_SLOT_CONSOLE);
}
/* One line: local time, thread and function, then the formatted body, then a newline. Lines of two
   threads may mix at these joints. */
void ds_console_line(FILE *console, const char *function, const char *format, ...);

#ifdef __cplusplus
}
#endif
#endif
