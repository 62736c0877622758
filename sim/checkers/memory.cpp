#include "platform_default/platform_default.h"
#include "sim/checkers/checkers.h"
#include "sim/world/world.h"

namespace ds::sim {

namespace {

constexpr std::int64_t blocks_of_database = 1;
constexpr std::int64_t blocks_of_node = 2; // its record and its address
constexpr std::uint32_t page_bytes = 4096; // of which the library makes its pools
constexpr std::uint32_t pool_flags = 785;

struct Pool {
    const char *name;
    const chunk_pool_t *pool;
    std::size_t record_bytes;
};

// Pools keep the blocks that they took.
std::int64_t blocks_of(const Pool &pool) {
    chunk_usage_t usage;
    chunk_get_usage(pool.pool, &usage);
    const std::uint32_t records = chunk_compute_max(page_bytes, pool_flags, pool.record_bytes, 0);
    return static_cast<std::int64_t>(usage.records_reserved / records);
}

std::string find_leftovers_of(Daemon &daemon) {
    const ds_db_t *db = daemon.database();
    std::int64_t expected = blocks_of_database + blocks_of_node * db->node_table.entry_count;
    const std::string who = "node " + std::to_string(daemon.node());
    for (const Pool &pool : {Pool{"clients", db->client_pool, sizeof(ds_client_t)},
                             Pool{"registrations", db->client_reg_pool, sizeof(ds_client_reg_t)},
                             Pool{"services", db->service_pool, sizeof(ds_service_t)},
                             Pool{"names", db->selem_pool, sizeof(ds_service_elem_t)}}) {
        chunk_usage_t usage;
        chunk_get_usage(pool.pool, &usage);
        if (usage.records_in_use != 0)
            return who + " still has " + std::to_string(usage.records_in_use) + " " + pool.name;
        expected += blocks_of(pool);
    }
    const std::int64_t held = daemon.platform().heap_blocks;
    if (held == expected) return {};
    return who + " holds " + std::to_string(held) + " blocks of memory instead of " +
           std::to_string(expected);
}

} // namespace

std::string find_leftovers(World &world) {
    for (Machine &machine : world.machines())
        if (machine.daemon)
            if (std::string found = find_leftovers_of(*machine.daemon); !found.empty())
                return found;
    if (world.is_deserted()) return {}; // nobody removes what the last one left
    const etcd::Keys keys = keys_in(0);
    for (const etcd::KeyValue &item : world.store().range(etcd::range_of("/")))
        if (keys.parse_entry(item.key)) return "the store still has " + item.key;
    return {};
}

} // namespace ds::sim
