/* Pools of equal, fixed-size records. One thread at a time for each pool. */
#ifndef PLATFORM_CHUNK_H
#define PLATFORM_CHUNK_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct chunk_pool chunk_pool_t; /* opaque */

/* Records of record_size bytes that one block of page_size bytes holds, at least 1.
   Called as (4096, 785, size, 0). */
uint32_t chunk_compute_max(uint32_t page_size, uint32_t flags, size_t record_size, uint32_t zero);

/* A pool of records of record_size bytes, taken from the system max records at a time. The name is
   copied. Called as (name, size, max, 785, 0, 0). Null = failure. */
chunk_pool_t *chunk_create(const char *name, size_t record_size, uint32_t max, uint32_t flags,
                           uint32_t zero1, uint32_t zero2);

/* A record whose bytes are all zero, also when it was used before; the caller's until chunk_free.
   Null = exhausted. */
void *chunk_malloc(chunk_pool_t *pool);

/* Gives a record back to the pool it came from. */
void chunk_free(chunk_pool_t *pool, void *record);

/* Releases the pool with all its records, also those that are still out. */
void chunk_destroy(chunk_pool_t *pool);
#ifdef __cplusplus
}
#endif
#endif
