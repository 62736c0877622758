// Service elements: one record per service name, in a tree ordered by length, then bytes.

#include "ds_db_lock.h"
#include "ds_trace.h"

#include <stdlib.h>
#include <string.h>

namespace {

struct name_key {
    const char *name;
    uint64_t length;
};

ds_service_elem_t *element_of(avl_node_t *node) {
    return reinterpret_cast<ds_service_elem_t *>(node); // the linkage is the element's first field
}

int compare_names(const void *key, const avl_node_t *node) {
    const name_key *wanted = static_cast<const name_key *>(key);
    const ds_service_elem_t *selem = reinterpret_cast<const ds_service_elem_t *>(node);
    if (wanted->length != selem->name_len)
        return wanted->length < selem->name_len ? AVL_LESS : AVL_GREATER;
    const int order = wanted->length == 0 ? 0 : memcmp(wanted->name, selem->name, wanted->length);
    return order == 0 ? AVL_EQUAL : order < 0 ? AVL_LESS : AVL_GREATER;
}

// Counts the elements for which the test holds; with a name, 1 or 0 for the first element whose own
// name begins that name.
template <class Test> uint32_t count_elements(const char *name, Test test) {
    ds_db_t *db = ds_db_context();
    if (db == NULL || db->selem_tree.count == 0) return 0;
    uint32_t count = 0;
    for (avl_node_t *node = avl_get_first(&db->selem_tree); node != NULL;
         node = avl_get_next(node)) {
        ds_service_elem_t *selem = element_of(node);
        if (name == NULL) {
            count += test(selem) ? 1 : 0;
        } else if (strncmp(selem->name, name, selem->name_len) == 0) {
            return test(selem) ? 1 : 0;
        }
    }
    return count;
}

bool is_live_in_scope(const ds_service_t *service, uint32_t scope) {
    return !ds_is_placeholder(service) && (scope == DS_SCOPE_ANY || service->scope == scope);
}

} // namespace

extern "C" {

int ds_db_init_service_element(const char *name, ds_service_elem_t **selem_out) {
    ds_db_t *db = ds_db_context();
    if (name == NULL || selem_out == NULL || db == NULL) return -1;
    ds_service_elem_t *selem = static_cast<ds_service_elem_t *>(chunk_malloc(db->selem_pool));
    if (selem == NULL) return -1;
    memset(selem, 0, sizeof *selem);
    selem->name_len = strlen(name);
    selem->name = ds_copy_text(name, selem->name_len);
    if (selem->name == NULL) {
        chunk_free(db->selem_pool, selem);
        return -1;
    }
    selem->name_hash = ds_hash_string(name, selem->name_len);
    *selem_out = selem;
    return 0;
}

int ds_db_free_service_element(ds_service_elem_t *selem) {
    ds_db_t *db = ds_db_context();
    if (selem == NULL || db == NULL) return -1;
    free(selem->name);
    selem->name = NULL;
    chunk_free(db->selem_pool, selem);
    return 0;
}

int ds_db_add_service_element(ds_service_elem_t *selem) {
    ds_db_t *db = ds_db_context();
    if (selem == NULL || db == NULL) return -1;
    const name_key key = {selem->name, selem->name_len};
    int result;
    {
        ds_db_lock lock(db);
        result = avl_insert(&db->selem_tree, &key, &selem->tree_link, compare_names);
    }
    if (result == 0) return 0;
    DS_TRACE(DS_SERVICE_INFO_TREE_AVL_INSERT, selem->name);
    return -1;
}

int ds_db_delete_service_element(ds_service_elem_t *selem) {
    ds_db_t *db = ds_db_context();
    if (selem == NULL || db == NULL) return -1;
    ds_db_lock lock(db);
    avl_delete(&db->selem_tree, &selem->tree_link);
    ds_db_free_service_element(selem);
    return 0;
}

int ds_db_find_service_element(const char *name, ds_service_elem_t **selem_out) {
    if (selem_out == NULL) return -1;
    *selem_out = NULL;
    ds_db_t *db = ds_db_context();
    if (name == NULL || db == NULL || db->selem_tree.count == 0) return -1;
    const name_key key = {name, strlen(name)};
    avl_node_t *node = avl_search(&db->selem_tree, &key, compare_names);
    if (node == NULL) return -1;
    *selem_out = element_of(node);
    return 0;
}

int ds_db_service_element_has_services(ds_service_elem_t *selem, uint32_t scope) {
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = ds_service_get_next_in_service_list(service))
        if (is_live_in_scope(service, scope)) return 1;
    return 0;
}

int ds_db_service_element_has_remote_services(ds_service_elem_t *selem, ds_node_t *node,
                                              uint32_t scope) {
    for (ds_service_t *service = ds_service_get_service_list_head(selem); service != NULL;
         service = ds_service_get_next_in_service_list(service))
        if (is_live_in_scope(service, scope) && service->node == node) return 1;
    return 0;
}

int ds_db_service_element_has_registrations(ds_service_elem_t *selem) {
    return ds_service_get_client_reg_list_head(selem) != NULL;
}

uint32_t ds_db_get_registered_service_count(const char *name) {
    return count_elements(name, [](ds_service_elem_t *selem) {
        return ds_db_service_element_has_registrations(selem);
    });
}

uint32_t ds_db_get_published_service_count(const char *name, uint32_t scope) {
    return count_elements(name, [=](ds_service_elem_t *selem) {
        return ds_db_service_element_has_services(selem, scope);
    });
}

uint32_t ds_db_get_remote_published_service_count(const char *name, ds_node_t *node,
                                                  uint32_t scope) {
    return count_elements(name, [=](ds_service_elem_t *selem) {
        return ds_db_service_element_has_remote_services(selem, node, scope);
    });
}
}
