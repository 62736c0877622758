// Pools, trees, lists and tables: malloc-backed pools, an unbalanced search tree, plain lists.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "platform/avl.h"
#include "platform/dbly.h"
#include "recording.h"

using namespace recording;

struct chunk_pool {
    std::string name;
    std::string kind;
    size_t record_size;
    std::set<void *> records;
};

namespace {

std::set<chunk_pool_t *> pools;
std::map<std::string, uint32_t> records_taken;

struct Entry {
    void *key;
    void *value;
};
std::map<const vanto_hashtable_t *, std::vector<Entry>> tables;

std::string kind_of_pool(const std::string &name) {
    static const std::map<std::string, std::string> kinds = {
        {"DS DB Client chunk", "client"},
        {"DS DB Service Element chunk", "selem"},
        {"DS DB Client Reg chunk", "reg"},
        {"DS DB Service Info chunk", "service"}};
    const auto found = kinds.find(name);
    return found == kinds.end() ? name : found->second;
}

void destroy(chunk_pool_t *pool) {
    for (void *record : pool->records)
        free(record);
    delete pool;
}

bool is_pool(const chunk_pool_t *pool) {
    return pools.count(const_cast<chunk_pool_t *>(pool)) != 0;
}

std::string failure_text(const Failure &failure) {
    return failure.fails ? " = failure" : "";
}

// The header's left child is the top node; the header is the only node without a parent.
bool is_header(const avl_node_t *node) {
    return node->parent == nullptr;
}

avl_node_t *leftmost(avl_node_t *node) {
    while (node->left != nullptr)
        node = node->left;
    return node;
}

avl_node_t *successor(avl_node_t *node) {
    if (node->right != nullptr) return leftmost(node->right);
    while (!is_header(node->parent) && node->parent->right == node)
        node = node->parent;
    return is_header(node->parent) ? nullptr : node->parent;
}

void replace_child(avl_node_t *old_child, avl_node_t *new_child) {
    avl_node_t *parent = old_child->parent;
    (parent->left == old_child ? parent->left : parent->right) = new_child;
    if (new_child != nullptr) new_child->parent = parent;
}

bool contains(avl_root_t *root, const avl_node_t *node) {
    for (avl_node_t *at = root->header.left ? leftmost(root->header.left) : nullptr; at != nullptr;
         at = successor(at))
        if (at == node) return true;
    return false;
}

} // namespace

namespace recording {

std::vector<LiveRecord> live_records() {
    std::vector<LiveRecord> result;
    for (const chunk_pool_t *pool : pools)
        for (void *record : pool->records)
            result.push_back({pool->kind, record, pool->record_size});
    return result;
}

size_t live_pools() {
    return pools.size();
}

std::vector<void *> table_values(const vanto_hashtable_t *table) {
    std::vector<void *> result;
    for (const Entry &entry : tables[table])
        result.push_back(entry.value);
    return result;
}

void reset_containers() {
    std::for_each(pools.begin(), pools.end(), destroy);
    pools.clear();
    records_taken.clear();
    tables.clear();
}

} // namespace recording

// ---- pools ----

extern "C" uint32_t chunk_compute_max(uint32_t page_size, uint32_t flags, size_t record_size,
                                      uint32_t zero) {
    note("chunk_compute_max(" + std::to_string(page_size) + ", " + std::to_string(flags) + ", " +
         std::to_string(record_size) + ", " + std::to_string(zero) + ")");
    return static_cast<uint32_t>(page_size / record_size);
}

extern "C" chunk_pool_t *chunk_create(const char *name, size_t record_size, uint32_t max,
                                      uint32_t flags, uint32_t zero1, uint32_t zero2) {
    note("chunk_create(" + std::string(name) + ", " + std::to_string(record_size) + ", " +
         std::to_string(max) + ", " + std::to_string(flags) + ", " + std::to_string(zero1) + ", " +
         std::to_string(zero2) + ")");
    if (should_fail("chunk_create").fails) return nullptr;
    auto *pool = new chunk_pool_t{name, kind_of_pool(name), record_size, {}};
    pools.insert(pool);
    return pool;
}

extern "C" void *chunk_malloc(chunk_pool_t *pool) {
    if (!is_pool(pool)) {
        misuse("chunk_malloc from no pool");
        return nullptr;
    }
    if (should_fail("chunk_malloc").fails) {
        note("chunk_malloc(" + pool->kind + ") = null");
        return nullptr;
    }
    void *record = calloc(1, pool->record_size);
    pool->records.insert(record);
    const std::string text = pool->kind + "#" + std::to_string(++records_taken[pool->kind]);
    recording::name(record, pool->record_size, text);
    note("chunk_malloc(" + pool->kind + ") = " + text);
    return record;
}

extern "C" void chunk_free(chunk_pool_t *pool, void *record) {
    note("chunk_free(" + (is_pool(pool) ? pool->kind : "?") + ", " + name_of(record) + ")");
    if (!is_pool(pool) || pool->records.erase(record) == 0) {
        misuse("chunk_free of a record that its pool did not hand out");
        return;
    }
    free(record);
}

extern "C" void chunk_destroy(chunk_pool_t *pool) {
    if (pools.erase(pool) == 0) {
        misuse("chunk_destroy of no pool");
        return;
    }
    note("chunk_destroy(" + pool->kind + ")");
    destroy(pool);
}

// ---- trees ----

extern "C" int avl_insert(avl_root_t *root, const void *key, avl_node_t *node,
                          avl_compare_fn compare) {
    const Failure failure = should_fail("avl_insert");
    note("avl_insert(" + name_of(root) + ", " + name_of(node) + ")" + failure_text(failure));
    if (failure.fails) return failure.result;
    if (root == nullptr || key == nullptr || node == nullptr || compare == nullptr) return -1;
    avl_node_t *parent = &root->header;
    avl_node_t **place = &root->header.left;
    while (*place != nullptr) {
        parent = *place;
        const int order = compare(key, parent);
        if (order == AVL_EQUAL) return -1;
        place = order == AVL_LESS ? &parent->left : &parent->right;
    }
    *node = avl_node_t{parent, nullptr, nullptr, 0};
    *place = node;
    ++root->count;
    return 0;
}

extern "C" void avl_delete(avl_root_t *root, avl_node_t *node) {
    note("avl_delete(" + name_of(root) + ", " + name_of(node) + ")");
    if (!contains(root, node)) {
        misuse("avl_delete of a node that is not in the tree");
        return;
    }
    if (node->left != nullptr && node->right != nullptr) {
        avl_node_t *next = leftmost(node->right);
        replace_child(next, next->right);
        next->left = node->left;
        next->right = node->right;
        if (next->left != nullptr) next->left->parent = next;
        if (next->right != nullptr) next->right->parent = next;
        replace_child(node, next);
    } else {
        replace_child(node, node->left != nullptr ? node->left : node->right);
    }
    *node = avl_node_t{};
    --root->count;
}

extern "C" avl_node_t *avl_search(avl_root_t *root, const void *key, avl_compare_fn compare) {
    avl_node_t *at = root->header.left;
    while (at != nullptr) {
        const int order = compare(key, at);
        if (order == AVL_EQUAL) break;
        at = order == AVL_LESS ? at->left : at->right;
    }
    note("avl_search(" + name_of(root) + ") = " + name_of(at));
    return at;
}

extern "C" avl_node_t *avl_get_first(avl_root_t *root) {
    avl_node_t *first = root->header.left != nullptr ? leftmost(root->header.left) : nullptr;
    note("avl_get_first(" + name_of(root) + ") = " + name_of(first));
    return first;
}

extern "C" avl_node_t *avl_get_next(avl_node_t *node) {
    if (node == nullptr || node->parent == nullptr) {
        misuse("avl_get_next of a node that is in no tree");
        return nullptr;
    }
    avl_node_t *next = successor(node);
    note("avl_get_next(" + name_of(node) + ") = " + name_of(next));
    return next;
}

extern "C" int avl_walk(avl_root_t *root, avl_walk_fn fn, void *arg) {
    note("avl_walk(" + name_of(root) + ")");
    avl_node_t *node = root->header.left != nullptr ? leftmost(root->header.left) : nullptr;
    while (node != nullptr) {
        avl_node_t *next = successor(node);
        if (fn(node, arg) == 0) return 0;
        node = next;
    }
    return 1;
}

// ---- lists ----

extern "C" void dbly_linkage_link(dbly_linkage_t *after, dbly_linkage_t *linkage) {
    note("dbly_linkage_link(" + name_of(after) + ", " + name_of(linkage) + ")");
    if (linkage->prev != nullptr || linkage->next != nullptr)
        misuse("dbly_linkage_link of a linked linkage: " + name_of(linkage));
    linkage->next = after->next;
    linkage->prev = after;
    if (after->next != nullptr) after->next->prev = linkage;
    after->next = linkage;
}

extern "C" void dbly_linkage_delink(dbly_linkage_t *linkage) {
    note("dbly_linkage_delink(" + name_of(linkage) + ")");
    if (linkage->prev != nullptr) linkage->prev->next = linkage->next;
    if (linkage->next != nullptr) linkage->next->prev = linkage->prev;
    linkage->next = nullptr;
    linkage->prev = nullptr;
}

// ---- tables ----

extern "C" int vanto_protected_hashtable_init(vanto_protected_hashtable_t *table,
                                              uint32_t bucket_count) {
    note("vanto_protected_hashtable_init(" + std::to_string(bucket_count) + ")");
    const Failure failure = should_fail("vanto_protected_hashtable_init");
    if (failure.fails) return failure.result;
    table->bucket_count = bucket_count;
    tables[table] = {};
    return 0;
}

extern "C" void *vanto_protected_hashtable_get(vanto_protected_hashtable_t *table,
                                               const void *key) {
    void *value = nullptr;
    const uint64_t hash = table->key_hash(key);
    if (hash >= table->bucket_count) misuse("a key hash names no bucket");
    for (const Entry &entry : tables[table])
        if (table->key_equals(entry.key, key) != 0) value = entry.value;
    note("vanto_protected_hashtable_get(" + std::to_string(hash) + ") = " + name_of(value));
    return value;
}

extern "C" int vanto_protected_hashtable_put(vanto_protected_hashtable_t *table, void *key,
                                             void *value) {
    const Failure failure = should_fail("vanto_protected_hashtable_put");
    note("vanto_protected_hashtable_put(" + std::to_string(table->key_hash(key)) + ")" +
         failure_text(failure));
    if (failure.fails) return failure.result;
    std::vector<Entry> &entries = tables[table];
    const bool is_present = std::any_of(entries.begin(), entries.end(), [&](const Entry &entry) {
        return table->key_equals(entry.key, key) != 0;
    });
    if (is_present) return -1;
    entries.push_back({key, value});
    ++table->entry_count;
    return 0;
}

extern "C" void vanto_protected_hashtable_release(vanto_protected_hashtable_t *table) {
    note("vanto_protected_hashtable_release()");
    if (tables.erase(table) == 0) misuse("release of a table that was not initialised");
    *table = vanto_hashtable_t{};
}

extern "C" void vanto_hashtable_set_key_equals(vanto_hashtable_t *table, vanto_key_equals_fn fn) {
    note("vanto_hashtable_set_key_equals()");
    table->key_equals = fn;
}

extern "C" void vanto_hashtable_set_key_hash(vanto_hashtable_t *table, vanto_key_hash_fn fn) {
    note("vanto_hashtable_set_key_hash()");
    table->key_hash = fn;
}
