#ifndef PLATFORM_CHUNK_H
#define PLATFORM_CHUNK_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct chunk_pool chunk_pool_t;            /* opaque fixed-size record pool */
uint32_t chunk_compute_max(uint32_t page_size, uint32_t flags, size_t record_size, uint32_t zero);   /* called as (4096, 785, size, 0) */
/* called as (name, size, max, 785, 0, 0); null = failure */
chunk_pool_t *chunk_create(const char *name, size_t record_size, uint32_t max, uint32_t flags, uint32_t zero1, uint32_t zero2);
void *chunk_malloc(chunk_pool_t *pool);            /* a ZERO-FILLED record, also when the record was used before; null = exhausted */
void chunk_free(chunk_pool_t *pool, void *record); /* gives the record back to its pool */
void chunk_destroy(chunk_pool_t *pool);            /* releases the pool */
#ifdef __cplusplus
}
#endif
#endif
