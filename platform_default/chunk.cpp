// Record pools: blocks of equal slots, the free slots chained through their first word.
//
//   block: | header | slot | slot | slot | ...      plain build:      slot = | record          |
//                                                   sanitized build:  slot = | front | record  |
//
// A sanitized build keeps the chain's word in a front of its own, so that the whole record is
// poisoned while it is free, and the front while it is out: both a use after the release and a
// write before or behind a record are then reported.
#include "platform/chunk.h"
#include "platform_default/platform_default.h"
#include "poison.h"
#include <algorithm>
#include <boost/pool/simple_segregated_storage.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr std::size_t slot_alignment = alignof(std::max_align_t);
constexpr std::size_t front_bytes = ds::platform::poison_enabled ? slot_alignment : 0;
constexpr std::size_t record_bytes_max = std::size_t{1} << 24;

struct alignas(std::max_align_t) block_header {
    block_header *next;
    std::size_t bytes; // of the whole block
};

// Bytes from one slot to the next in a plain build; what the page is divided by.
std::size_t aligned_bytes(std::size_t record_bytes) {
    const std::size_t bytes = std::max(record_bytes, sizeof(void *));
    return (bytes + slot_alignment - 1) / slot_alignment * slot_alignment;
}

} // namespace

struct chunk_pool {
    boost::simple_segregated_storage<std::size_t> free_slots;
    block_header *blocks;
    std::size_t record_bytes;
    std::size_t slot_bytes;
    std::uint64_t records_per_block;
    std::uint64_t records_max; // 0 = no limit
    std::uint64_t records_in_use;
    std::uint64_t records_reserved;
    std::uint64_t bytes_reserved;
    char name[32]; // for whoever looks at the pool in a debugger
};

namespace {

bool add_block(chunk_pool *pool) {
    const std::size_t slots_bytes = pool->slot_bytes * pool->records_per_block;
    const std::size_t bytes = sizeof(block_header) + slots_bytes;
    void *memory = std::malloc(bytes);
    if (memory == nullptr) return false;
    auto *block = new (memory) block_header{pool->blocks, bytes};
    char *slots = static_cast<char *>(memory) + sizeof(block_header);
    pool->free_slots.add_block(slots, slots_bytes, pool->slot_bytes);
    for (std::uint64_t i = 0; i < pool->records_per_block; i++)
        ds::platform::poison(slots + i * pool->slot_bytes + front_bytes,
                             front_bytes != 0 ? pool->slot_bytes - front_bytes : 0);
    pool->blocks = block;
    pool->records_reserved += pool->records_per_block;
    pool->bytes_reserved += bytes;
    return true;
}

} // namespace

uint32_t chunk_compute_max(uint32_t page_size, uint32_t, size_t record_size, uint32_t) {
    const std::size_t room = std::max<std::size_t>(page_size, sizeof(block_header));
    if (record_size == 0 || record_size > room) return 1;
    const std::size_t records = (room - sizeof(block_header)) / aligned_bytes(record_size);
    return records == 0 ? 1 : static_cast<uint32_t>(records);
}

chunk_pool_t *chunk_create(const char *name, size_t record_size, uint32_t max, uint32_t, uint32_t,
                           uint32_t) {
    if (name == nullptr || max == 0) return nullptr;
    if (record_size == 0 || record_size > record_bytes_max) return nullptr;
    auto *pool = new (std::nothrow) chunk_pool{};
    if (pool == nullptr) return nullptr;
    pool->record_bytes = record_size;
    pool->slot_bytes = aligned_bytes(record_size) + front_bytes;
    pool->records_per_block = max;
    std::snprintf(pool->name, sizeof pool->name, "%s", name);
    return pool;
}

void *chunk_malloc(chunk_pool_t *pool) {
    if (pool == nullptr) return nullptr;
    if (pool->records_max != 0 && pool->records_in_use >= pool->records_max) return nullptr;
    if (pool->free_slots.empty() && !add_block(pool)) return nullptr;
    char *slot = static_cast<char *>((pool->free_slots.malloc)());
    char *record = slot + front_bytes;
    ds::platform::poison(slot, front_bytes);
    ds::platform::unpoison(record, pool->record_bytes);
    std::memset(record, 0, pool->record_bytes);
    pool->records_in_use++;
    return record;
}

void chunk_free(chunk_pool_t *pool, void *record) {
    if (pool == nullptr || record == nullptr) return;
    if constexpr (ds::platform::poison_enabled) {
        // Writing to the record makes the sanitizer report one that is given back twice.
        std::memset(record, 0xfd, pool->record_bytes);
        ds::platform::poison(record, pool->record_bytes);
    }
    char *slot = static_cast<char *>(record) - front_bytes;
    ds::platform::unpoison(slot, front_bytes);
    (pool->free_slots.free)(slot);
    pool->records_in_use--;
}

void chunk_destroy(chunk_pool_t *pool) {
    if (pool == nullptr) return;
    block_header *block = pool->blocks;
    while (block != nullptr) {
        block_header *next = block->next;
        ds::platform::unpoison(block, block->bytes);
        std::free(block);
        block = next;
    }
    delete pool;
}

void chunk_set_limit(chunk_pool_t *pool, uint64_t records_max) {
    if (pool != nullptr) pool->records_max = records_max;
}

void chunk_get_usage(const chunk_pool_t *pool, chunk_usage_t *usage) {
    if (usage == nullptr) return;
    if (pool == nullptr)
        *usage = {};
    else
        *usage = {pool->records_in_use, pool->records_reserved, pool->bytes_reserved};
}
