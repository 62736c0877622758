/* Hash tables with the caller's keys, safe to use from several threads. */
#ifndef PLATFORM_VANTO_H
#define PLATFORM_VANTO_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef int (*vanto_key_equals_fn)(const void *a, const void *b); /* non-zero = equal */
typedef uint64_t (*vanto_key_hash_fn)(const void *key);           /* the library's returns 0..127 */
typedef struct vanto_hashtable { /* caller-allocated, zero-filled before init; members are the
                                    platform's own */
    void *buckets;
    uint32_t bucket_count;
    uint32_t entry_count;
    vanto_key_equals_fn key_equals;
    vanto_key_hash_fn key_hash;
    void *lock;
} vanto_hashtable_t;
typedef vanto_hashtable_t
    vanto_protected_hashtable_t; /* same record; every protected_ call takes the table's own lock */

/* Prepares a zero-filled table with a number of buckets that never changes. 0 = success. */
int vanto_protected_hashtable_init(vanto_protected_hashtable_t *table, uint32_t bucket_count);

/* The value put under an equal key, or null. */
void *vanto_protected_hashtable_get(vanto_protected_hashtable_t *table, const void *key);

/* Stores value under key, in place of the entry of an equal key. The table keeps both pointers;
   what they point at stays the caller's. 0 = stored, non-zero = not stored and nothing changed. */
int vanto_protected_hashtable_put(vanto_protected_hashtable_t *table, void *key, void *value);

/* Frees the table's own memory, not keys or values. */
void vanto_protected_hashtable_release(vanto_protected_hashtable_t *table);

/* Install the callbacks; called after init and before the first put. */
void vanto_hashtable_set_key_equals(vanto_hashtable_t *table, vanto_key_equals_fn fn);
void vanto_hashtable_set_key_hash(vanto_hashtable_t *table, vanto_key_hash_fn fn);
#ifdef __cplusplus
}
#endif
#endif
