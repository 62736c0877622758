/*
 * What the library's own files share. Nothing here is promised to a host; the functions have linkage so
 * that tests can call them. The log point is in ds_trace.h.
 */
#ifndef DS_INTERNAL_H
#define DS_INTERNAL_H
#include <stdio.h>
#include "ds_server_lib.h"
#ifdef __cplusplus
extern "C" {
#endif

/* ---- lifecycle of a service ---- */

/* Hands a relay delivery to the resolver when a restart period asks for it; replayed_out tells whether.
   Returns 0 or the resolver's result. */
int ds_db_check_if_service_replayed_from_dsr(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                                             ds_service_elem_t *selem, const ds_dsr_service_ref_t *dsr_ref,
                                             uint8_t *replayed_out);
/* Creates, links and announces a record. 0, or -1 when it could not be made. */
int ds_db_handle_service_new(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                             ds_service_elem_t *selem, ds_client_t *client, uint32_t dsr_id);
/* Gives a record its new publish info and announces the change. 0. */
int ds_db_handle_service_modified(ds_service_t *service, ds_service_publish_info *info, ds_node_t *node,
                                  ds_service_elem_t *selem, ds_client_t *client);
/* A relay delivery in a restart period: adopts the relay's identity on the record it matches, else enters a
   relay-owned record. 0, or -1 when that record could not be made. */
int ds_db_resolve_service_info_from_dsr(uint32_t client_idx, ds_node_t *node, ds_service_publish_info *info,
                                        ds_service_elem_t *selem, const ds_dsr_service_ref_t *dsr_ref);
/* A new local record in the own restart period takes over the identity of its relay-owned twin. 0. */
int ds_db_resolve_service_entry_to_dsr(ds_service_t *service, ds_service_elem_t *selem);
int ds_db_mark_remote_services(void *selem, void *unused);       /* avl_walk_fn; 1 always */
int ds_db_resolve_service_element(void *selem, void *local_node); /* avl_walk_fn; 1 always */

/* ---- notifications and dump responses ---- */

/* Tells one registration from the message of the run, unless it has seen the element's version. 0. */
int ds_notify_client_expanded(ds_client_reg_t *reg, ds_service_elem_t *selem, ds_notif_msg *msg,
                              ds_service_publish_info *publish_info, uint32_t count);

typedef struct ds_dump_walk_ctx {    /* lives in one ds_prepare_dump_resp_info call */
    ds_dump_selem_info  *selem_infos;
    ds_dump_client_info *client_infos;
    uint32_t             next_index; /* first free record */
    const char          *name_filter; /* null = any */
    uint32_t             scope_filter; /* DS_SCOPE_ANY = any */
    uint64_t             node_filter; /* 0 = any */
    uint32_t             capacity;    /* records in the array */
    uint32_t             request_flags; /* DS_DUMP_REQ_* */
} ds_dump_walk_ctx;
int ds_fill_services(ds_service_elem_t *selem, ds_dump_selem_info *selem_info, ds_dump_walk_ctx *walk_ctx, uint32_t *count);
int ds_fill_service_registrations(ds_service_elem_t *selem, ds_dump_selem_info *selem_info, ds_dump_walk_ctx *walk_ctx, uint32_t *count);
int ds_fill_client_services(ds_client_t *client, ds_dump_client_info *client_info, ds_dump_walk_ctx *walk_ctx, uint32_t *count);
int ds_fill_client_registrations(ds_client_t *client, ds_dump_client_info *client_info, ds_dump_walk_ctx *walk_ctx, uint32_t *count);

/* ---- relay ---- */

/* Sends every local service of scope rack or system as an addition. 0. */
int         ds_remote_send_all(void);
/* "aabb:ccdd:eeff" of 6 address bytes, in one static buffer. */
const char *ds_peer_addr_text(const uint8_t *address);

/* ---- names of codes ---- */

const char *ds_scope_name(uint32_t scope);         /* RACK SYSTEM LOCAL, else UNKNOWN */
const char *ds_ha_role_name(uint32_t role);        /* ACTIVE STANDBY, else UNKNOWN */
const char *ds_issu_role_name(uint32_t role);      /* PRIMARY SECONDARY TERTIARY, else UNKNOWN */
const char *dsr_op_name(uint32_t operation);       /* 10 characters, blank padded; UNKNOWN out of range */
const char *dsr_scope_name(uint32_t scope);        /* DSR_SCOPE_NONE ...; null out of range */
const char *dsr_scope_name_padded(uint32_t scope); /* 16 characters, blank padded; null out of range */
const char *ds_node_name(const ds_node_t *node);   /* node->name, UNKNOWN for an id that names no record */
int         ds_node_is_record(const ds_node_t *node); /* 0 for the ids 0..127 that stand in for a record */

/* ---- small tests ---- */

/* Whether the record was made from a relay replay and no client owns it: it is neither counted nor shown. */
static inline int ds_is_placeholder(const ds_service_t *service) { return service->proc_id == DS_PROC_ID_FROM_DSR; }
/* Whether services of that scope travel to other nodes. */
static inline int ds_is_replicated(uint32_t scope) { return scope == DS_SCOPE_RACK || scope == DS_SCOPE_SYSTEM; }

/* ---- global state ---- */

/* The block's slot, 0 while no block is installed. */
uint64_t  ds_slot(uint32_t slot);
ds_db_t  *ds_db_context(void); /* slot 14; null without block or database */
ds_node_t *ds_local_node(void); /* slot 39 */
/* Whether the restart timer in that slot exists and is running; asks the timer only when it exists. */
int       ds_timer_running(uint32_t slot);

/* ---- database ---- */

ds_service_publish_info *ds_publish_info_hold(ds_service_publish_info *info); /* take; null = copy failed */
void ds_publish_info_release(ds_service_publish_info *info); /* contents, then the structure unless borrowed; null ok */
/* ds_db_free_service, then the instance text which that leaves behind. Null ok. */
void ds_db_drop_service(ds_service_t *service);
/* The text itself, "" for none: what a log line prints. */
static inline const char *ds_text(const char *text) { return text != NULL ? text : ""; }
/* Copy of a text, zero-terminated; null = out of memory. */
char *ds_copy_text(const char *text, size_t length);

/* ---- console ---- */

/* The console stream (slot 16), null for none or while no block is installed. */
FILE *ds_console(void);
/* One console line: time, thread and function, then the body, then a newline. */
void  ds_console_line(FILE *console, const char *function, const char *format, ...);

#ifdef __cplusplus
}
#endif
#endif
