// The database context: pools, node table, mutex. Created once, lives until the process ends.

#include "ds_trace.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr uint32_t page_bytes = 4096;
constexpr uint32_t pool_flags = 785;
constexpr uint32_t node_buckets = 128;
constexpr uint32_t node_hash_mask = 127;
constexpr uint64_t node_addr_bytes = 6;
constexpr uint32_t first_client_idx = 10; // the first client gets the next one

chunk_pool_t *create_pool(const char *name, size_t record_bytes) {
    const uint32_t max = chunk_compute_max(page_bytes, pool_flags, record_bytes, 0);
    return chunk_create(name, record_bytes, max, pool_flags, 0, 0);
}

bool create_pools(ds_db_t *db) {
    db->client_pool = create_pool("DS DB Client chunk", sizeof(ds_client_t));
    if (db->client_pool == NULL) return false;
    db->selem_pool = create_pool("DS DB Service Element chunk", sizeof(ds_service_elem_t));
    if (db->selem_pool == NULL) return false;
    db->client_reg_pool = create_pool("DS DB Client Reg chunk", sizeof(ds_client_reg_t));
    if (db->client_reg_pool == NULL) return false;
    db->service_pool = create_pool("DS DB Service Info chunk", sizeof(ds_service_t));
    return db->service_pool != NULL;
}

int node_addr_equals(const void *a, const void *b) {
    return memcmp(a, b, node_addr_bytes) == 0;
}

uint64_t node_addr_hash(const void *addr) {
    return ds_hash_string(addr, node_addr_bytes) & node_hash_mask;
}

bool create_node_table(ds_db_t *db) {
    if (vanto_protected_hashtable_init(&db->node_table, node_buckets) != 0) return false;
    vanto_hashtable_set_key_equals(&db->node_table, node_addr_equals);
    vanto_hashtable_set_key_hash(&db->node_table, node_addr_hash);
    return true;
}

bool create_mutex(ds_db_t *db) {
    pthread_mutexattr_t attributes;
    int result = pthread_mutexattr_init(&attributes);
    if (result != 0) {
        DS_TRACE_IN("ds_db_init", DS_DB_INIT_MUTEXATTR, strerror(result));
        return false;
    }
    result = pthread_mutex_init(&db->mutex, &attributes);
    if (result != 0) {
        DS_TRACE_IN("ds_db_init", DS_DB_INIT_MUTEX, strerror(result));
        return false;
    }
    return true;
}

void destroy_pool(chunk_pool_t *pool) {
    if (pool != NULL) chunk_destroy(pool);
}

void release(ds_db_t *db, bool has_node_table) {
    destroy_pool(db->selem_pool);
    destroy_pool(db->client_pool);
    destroy_pool(db->client_reg_pool);
    destroy_pool(db->service_pool);
    if (has_node_table) vanto_protected_hashtable_release(&db->node_table);
    free(db);
}

} // namespace

extern "C" {

int ds_db_init(void) {
    ds_globals_t *block = ds_globals_get();
    if (block == NULL) return -1;
    if (block->slot[DS_GLOBAL_SLOT_DB] != 0) return 0;
    ds_db_t *db = static_cast<ds_db_t *>(calloc(1, sizeof(ds_db_t)));
    if (db == NULL) return -1;
    block->slot[DS_GLOBAL_SLOT_DB] = reinterpret_cast<uint64_t>(db);

    const bool has_pools = create_pools(db);
    const bool has_node_table = has_pools && create_node_table(db);
    if (!has_node_table || !create_mutex(db)) {
        // The slot keeps the stale pointer: a host must not go on after this.
        release(db, has_node_table);
        return -1;
    }
    db->client_idx_counter = first_client_idx;
    db->next_service_id = static_cast<uint32_t>(getpid()) << 16;
    return 0;
}

char *ds_copy_text(const char *text, size_t length) {
    char *copy = static_cast<char *>(malloc(length + 1));
    if (copy == NULL) return NULL;
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}
}
