/*
 * What the default platform offers its host beyond the interfaces in platform/.
 *
 * The library never includes this header. The host uses it once at start, before
 * ds_server_lib_init: it chooses where trace rings live, lends its event loop to the
 * timers and says who takes the updates for the relay. Everything here belongs to the
 * one thread that drives the library.
 */
#ifndef PLATFORM_DEFAULT_H
#define PLATFORM_DEFAULT_H
#include "platform/chunk.h"
#include "platform/mgd_timer.h"
#include "platform/vanto.h"
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* ---- trace rings ---- */

/* Directory of the ring files ("<channel>.ring"); the text is copied. Null (also the state at
   start) keeps the rings in anonymous memory. Applies to channels opened afterwards. A ring file
   that an earlier run left is kept as "<channel>.ring.old". 0 = set, -1 = the path is too long. */
int rtrace_set_directory(const char *path);

/* Unmaps a channel; for tests, as the library never closes one. Null is a no-op. */
void rtrace_close(void *handle);

/* ---- pools ---- */

/* Most records the pool may have out at once; 0 = no limit (the state at start). */
void chunk_set_limit(chunk_pool_t *pool, uint64_t records_max);

typedef struct chunk_usage {
    uint64_t records_in_use;   /* handed out and not given back */
    uint64_t records_reserved; /* room for records in the blocks taken so far */
    uint64_t bytes_reserved;   /* bytes of these blocks */
} chunk_usage_t;
void chunk_get_usage(const chunk_pool_t *pool, chunk_usage_t *usage);

/* ---- hash tables ---- */

/* Calls fn with each value, in no particular order. fn must leave the table alone. */
void vanto_hashtable_visit(vanto_hashtable_t *table, void (*fn)(void *value, void *ctx), void *ctx);

/* ---- timers ---- */

/* The event loop that drives the timers. arm asks for one call of mgd_timer_expire(timer) at
   deadline_ns (CLOCK_MONOTONIC) and replaces an earlier request for the same timer; disarm takes
   the request back. on_expire runs inside mgd_timer_expire: the timer still counts as running while
   it does, unless on_expire stops it, and starts anew if on_expire starts it. context is the value
   given to mgd_timer_leaf_new. */
typedef struct mgd_timer_loop {
    void *loop;
    uint64_t (*now_ns)(void *loop);
    void (*arm)(void *loop, mgd_timer_t *timer, uint64_t deadline_ns);
    void (*disarm)(void *loop, mgd_timer_t *timer);
    void (*on_expire)(void *loop, mgd_timer_t *timer, uint64_t context);
} mgd_timer_loop_t;

/* A parent for mgd_timer_leaf_new: what the global block carries in slot 0. The table is copied.
   Null when memory ran out or a member other than loop is null. */
mgd_timer_t *mgd_timer_parent_new(const mgd_timer_loop_t *loop);
/* Called by the loop when the armed deadline has come. */
void mgd_timer_expire(mgd_timer_t *timer);
/* Stops and releases a leaf or a parent (a parent only after its leaves). Null is a no-op. */
void mgd_timer_release(mgd_timer_t *timer);

/* ---- endpoint encodings (the byte formats are described in docs/formats.md) ---- */

enum {
    DS_ENDPOINT_IP_BYTES = 8,
    DS_ENDPOINT_PATH_HEADER_BYTES = 4, /* before the path's own bytes */
    DS_ENDPOINT_PATH_BYTES_MAX = 4096
};

/* Writes the encoding of an IPv4 endpoint: DS_ENDPOINT_IP_BYTES bytes. address: most significant
   byte first octet; port 0..65535. Returns the bytes written, -1 when capacity is too small or the
   port is out of range. */
int32_t ds_encode_endpoint(uint32_t address, uint32_t port, void *buffer, uint32_t capacity);
/* The same with scope (0..255) and instance (that many bytes, no NUL needed) behind it. It decodes
   to the same endpoint, and no two services of a name have the same bytes: when a relay delivers
   again what it holds, the directory tells the services of one process by these bytes alone.
   Returns the bytes written, DS_ENDPOINT_IP_BYTES and the instance's; -1 as above. */
int32_t ds_encode_service_endpoint(uint32_t address, uint32_t port, uint32_t scope,
                                   const char *instance, uint64_t length, void *buffer,
                                   uint32_t capacity);
/* Writes the encoding of a path endpoint (not empty, no NUL inside, at most 4,000 bytes). Returns
   the bytes written, -1 when it does not fit or is not a valid path. */
int32_t ds_encode_path(const char *path, uint64_t length, void *buffer, uint32_t capacity);

/* ---- relay send ---- */

/* One update on its way to the relay; the arguments of dsr_dsc_send_update. Pointers are valid only
 * during the call. */
typedef struct dsr_update {
    uint32_t operation; /* DSR_ADD, DSR_MODIFY or DSR_DELETE */
    const char *service_name;
    uint32_t service_id;
    const char *instance; /* null = none */
    uint32_t scope;
    uint32_t pid;
    uint32_t version;
    const void *ep_bytes;
    uint32_t ep_len;
    const void *attr_bytes;
    uint32_t attr_len;
} dsr_update_t;
typedef int (*dsr_sender_fn)(void *ctx, const dsr_update_t *update);
/* Installs who takes the updates; null = nobody: updates are dropped and dsr_dsc_send_update
 * returns -1. */
void dsr_set_sender(dsr_sender_fn sender, void *ctx);

#ifdef __cplusplus
}
#endif
#endif
