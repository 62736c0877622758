// Protected hash tables: a fixed number of buckets, entries chained by Boost's intrusive hash set.
#include "platform/vanto.h"
#include "platform_default/platform_default.h"
#include <boost/intrusive/unordered_set.hpp>
#include <cstdint>
#include <mutex>
#include <new>

namespace {

namespace bi = boost::intrusive;

struct entry : bi::unordered_set_base_hook<bi::store_hash<true>, bi::link_mode<bi::normal_link>> {
    void *key = nullptr;
    void *value = nullptr;
};

struct key_of_entry {
    using type = const void *;
    type operator()(const entry &e) const { return e.key; }
};

// The set is asked with the caller's callbacks, call by call; the functions it holds itself are
// placeholders, which it would need only to grow.
struct caller_hash {
    vanto_key_hash_fn fn = nullptr;
    std::size_t operator()(const void *key) const { return fn(key); }
};

struct caller_equals {
    vanto_key_equals_fn fn = nullptr;
    bool operator()(const void *a, const void *b) const { return fn(a, b) != 0; }
};

using entry_set = bi::unordered_set<entry, bi::key_of_value<key_of_entry>, bi::hash<caller_hash>,
                                    bi::equal<caller_equals>, bi::constant_time_size<false>>;

struct storage {
    entry_set::bucket_type *buckets;
    entry_set entries;
    storage(entry_set::bucket_type *array, std::size_t count)
        : buckets(array), entries(entry_set::bucket_traits(array, count)) {}
};

constexpr std::uint32_t bucket_count_max = 1u << 20;

storage *storage_of(vanto_hashtable_t *table) {
    return static_cast<storage *>(table->buckets);
}

bool is_ready(const vanto_hashtable_t *table) {
    return table != nullptr && table->buckets != nullptr && table->key_equals != nullptr &&
           table->key_hash != nullptr;
}

} // namespace

int vanto_protected_hashtable_init(vanto_protected_hashtable_t *table, uint32_t bucket_count) {
    if (table == nullptr || bucket_count == 0 || bucket_count > bucket_count_max) return -1;
    auto *lock = new (std::nothrow) std::mutex;
    auto *buckets = new (std::nothrow) entry_set::bucket_type[bucket_count];
    storage *store =
        buckets == nullptr ? nullptr : new (std::nothrow) storage(buckets, bucket_count);
    if (lock == nullptr || store == nullptr) {
        delete store;
        delete[] buckets;
        delete lock;
        return -1;
    }
    *table = vanto_hashtable_t{};
    table->buckets = store;
    table->bucket_count = bucket_count;
    table->lock = lock;
    return 0;
}

void *vanto_protected_hashtable_get(vanto_protected_hashtable_t *table, const void *key) {
    if (!is_ready(table) || key == nullptr) return nullptr;
    const std::lock_guard guard(*static_cast<std::mutex *>(table->lock));
    entry_set &entries = storage_of(table)->entries;
    const auto found =
        entries.find(key, caller_hash{table->key_hash}, caller_equals{table->key_equals});
    return found == entries.end() ? nullptr : found->value;
}

int vanto_protected_hashtable_put(vanto_protected_hashtable_t *table, void *key, void *value) {
    if (!is_ready(table) || key == nullptr) return -1;
    const std::lock_guard guard(*static_cast<std::mutex *>(table->lock));
    entry_set &entries = storage_of(table)->entries;
    entry_set::insert_commit_data place;
    const void *wanted = key;
    const auto [found, is_new] = entries.insert_check(wanted, caller_hash{table->key_hash},
                                                      caller_equals{table->key_equals}, place);
    if (!is_new) {
        // The entry follows the newest key as well: the earlier one may be about to be freed.
        found->key = key;
        found->value = value;
        return 0;
    }
    auto *fresh = new (std::nothrow) entry;
    if (fresh == nullptr) return -1;
    fresh->key = key;
    fresh->value = value;
    entries.insert_commit(*fresh, place);
    table->entry_count++;
    return 0;
}

void vanto_protected_hashtable_release(vanto_protected_hashtable_t *table) {
    if (table == nullptr || table->buckets == nullptr) return;
    storage *store = storage_of(table);
    store->entries.clear_and_dispose([](entry *e) { delete e; });
    entry_set::bucket_type *buckets = store->buckets;
    delete store;
    delete[] buckets;
    delete static_cast<std::mutex *>(table->lock);
    *table = vanto_hashtable_t{};
}

void vanto_hashtable_visit(vanto_hashtable_t *table, void (*fn)(void *value, void *ctx),
                           void *ctx) {
    if (!is_ready(table)) return;
    const std::lock_guard guard(*static_cast<std::mutex *>(table->lock));
    for (const entry &e : storage_of(table)->entries)
        fn(e.value, ctx);
}

void vanto_hashtable_set_key_equals(vanto_hashtable_t *table, vanto_key_equals_fn fn) {
    if (table != nullptr) table->key_equals = fn;
}

void vanto_hashtable_set_key_hash(vanto_hashtable_t *table, vanto_key_hash_fn fn) {
    if (table != nullptr) table->key_hash = fn;
}
