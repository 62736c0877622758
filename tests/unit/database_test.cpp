// The database context: its creation, every failure on the way, its two table callbacks.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "library_test.h"

namespace {

class DatabaseTest : public LibraryTest {
  protected:
    // Makes the next ds_db_init() start from nothing; the fixture's database stays aside.
    void start_over() {
        forget_database();
        recording::clear_calls();
        blocks_before_ = recording::live_allocations();
        pools_before_ = recording::live_pools();
    }

    // What every failed start must leave behind: nothing but a stale pointer.
    void expect_failed_start() {
        EXPECT_EQ(ds_db_init(), -1);
        EXPECT_NE(globals.slot[DS_GLOBAL_SLOT_DB], 0u) << "the stale pointer stays";
        EXPECT_EQ(recording::live_allocations(), blocks_before_);
        EXPECT_EQ(recording::live_pools(), pools_before_);
        EXPECT_EQ(ds_db_init(), 0) << "the stale pointer reads as an existing database";
    }

    size_t blocks_before_ = 0;
    size_t pools_before_ = 0;
};

std::string creation_calls(const char *name, size_t size) {
    const std::string bytes = std::to_string(size);
    return "chunk_compute_max(4096, 785, " + bytes + ", 0)\nchunk_create(" + name + ", " + bytes +
           ", " + std::to_string(4096 / size) + ", 785, 0, 0)\n";
}

} // namespace

TEST_F(DatabaseTest, init_creates_pools_table_and_mutex_in_order) {
    start_over();
    expect_leaks();

    EXPECT_EQ(ds_db_init(), 0);

    EXPECT_EQ(recording::joined(recording::calls_without({"malloc", "calloc"})),
              creation_calls("DS DB Client chunk", sizeof(ds_client_t)) +
                  creation_calls("DS DB Service Element chunk", sizeof(ds_service_elem_t)) +
                  creation_calls("DS DB Client Reg chunk", sizeof(ds_client_reg_t)) +
                  creation_calls("DS DB Service Info chunk", sizeof(ds_service_t)) +
                  "vanto_protected_hashtable_init(128)\nvanto_hashtable_set_key_equals()\n"
                  "vanto_hashtable_set_key_hash()\npthread_mutexattr_init()\n"
                  "pthread_mutex_init()\n");
}

TEST_F(DatabaseTest, each_pool_stands_in_its_own_field) {
    ds_client_t *client = nullptr;
    ds_db_init_client(&client);
    ds_service_elem_t *selem = new_element("web");
    ds_service_t *service = new_service(selem, PublishInfoBuilder("web").endpoints(1));
    ds_db_add_client(client);
    ds_client_reg_t *reg = new_registration(client, selem);

    EXPECT_EQ(recording::calls_with({"chunk_malloc"}),
              (Lines{"chunk_malloc(client) = client#1", "chunk_malloc(selem) = selem#1",
                     "chunk_malloc(service) = service#1", "chunk_malloc(reg) = reg#1"}));
    EXPECT_EQ(recording::name_of(client), "client#1");
    EXPECT_EQ(recording::name_of(selem), "selem#1");
    EXPECT_EQ(recording::name_of(service), "service#1");
    EXPECT_EQ(recording::name_of(reg), "reg#1");
}

TEST_F(DatabaseTest, a_new_database_is_empty_but_for_its_two_counters) {
    start_over();
    expect_leaks();

    ds_db_init();

    EXPECT_EQ(db()->client_idx_counter, 10u);
    EXPECT_EQ(db()->next_service_id, static_cast<uint32_t>(getpid()) << 16);
    EXPECT_EQ(db()->selem_tree.count, 0u);
    EXPECT_EQ(db()->client_list.next, nullptr);
    EXPECT_EQ(db()->clients_added, 0u);
    EXPECT_EQ(db()->clients_deleted, 0u);
    EXPECT_EQ(db()->last_client_add_time, 0u);
    EXPECT_EQ(db()->relay_spare_counter, 0u);
}

TEST_F(DatabaseTest, the_mutex_is_not_recursive) {
    ASSERT_EQ(pthread_mutex_trylock(&db()->mutex), 0);

    EXPECT_EQ(pthread_mutex_trylock(&db()->mutex), EBUSY);

    pthread_mutex_unlock(&db()->mutex);
}

TEST_F(DatabaseTest, a_second_init_keeps_the_database) {
    new_client(0x10, 100);
    recording::clear_calls();

    EXPECT_EQ(ds_db_init(), 0);

    EXPECT_EQ(db(), database());
    EXPECT_EQ(ds_db_get_client_count(nullptr), 1u);
    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(DatabaseTest, init_without_a_block_fails) {
    ds_globals_set(nullptr);

    EXPECT_EQ(ds_db_init(), -1);

    ds_globals_set(&globals);
}

TEST_F(DatabaseTest, init_without_memory_fails_and_leaves_the_slot_empty) {
    start_over();
    recording::fail("allocation");

    EXPECT_EQ(ds_db_init(), -1);

    EXPECT_EQ(globals.slot[DS_GLOBAL_SLOT_DB], 0u);
    EXPECT_EQ(recording::calls_with({"chunk", "vanto", "pthread"}), Lines{});
}

TEST_F(DatabaseTest, a_missing_pool_releases_those_created_before_it) {
    const std::vector<Lines> destroyed = {
        {},
        {"chunk_destroy(client)"},
        {"chunk_destroy(selem)", "chunk_destroy(client)"},
        {"chunk_destroy(selem)", "chunk_destroy(client)", "chunk_destroy(reg)"}};
    for (uint32_t failing = 1; failing <= 4; ++failing) {
        start_over();
        recording::fail("chunk_create", failing);

        expect_failed_start();

        EXPECT_EQ(recording::calls_with({"chunk_destroy", "vanto"}), destroyed[failing - 1]);
        EXPECT_EQ(recording::calls_with({"chunk_create"}).size(), failing);
    }
}

TEST_F(DatabaseTest, a_node_table_that_does_not_start_releases_all_pools_and_no_table) {
    start_over();
    recording::fail("vanto_protected_hashtable_init", 1, 5);

    expect_failed_start();

    EXPECT_EQ(recording::calls_with({"chunk_destroy", "vanto", "pthread"}),
              (Lines{"vanto_protected_hashtable_init(128)", "chunk_destroy(selem)",
                     "chunk_destroy(client)", "chunk_destroy(reg)", "chunk_destroy(service)"}));
    EXPECT_TRUE(recording::traces().empty());
}

TEST_F(DatabaseTest, a_failed_mutex_attribute_is_logged_and_releases_everything) {
    start_over();
    recording::fail("pthread_mutexattr_init", 1, ENOMEM);

    expect_failed_start();

    ASSERT_EQ(recording::trace_ids(), std::vector<uint32_t>{0});
    EXPECT_EQ(recording::traces()[0].text,
              std::string("[DS]: pthread_mutexattr_init failed, ") + strerror(ENOMEM) + "\n");
    EXPECT_EQ(recording::calls_with({"pthread", "rtrace", "chunk_destroy", "vanto_protected"}),
              (Lines{"vanto_protected_hashtable_init(128)", "pthread_mutexattr_init()",
                     "rtrace_internal(err, 0)", "chunk_destroy(selem)", "chunk_destroy(client)",
                     "chunk_destroy(reg)", "chunk_destroy(service)",
                     "vanto_protected_hashtable_release()"}));
}

TEST_F(DatabaseTest, a_failed_mutex_is_logged_and_releases_everything) {
    start_over();
    recording::fail("pthread_mutex_init", 1, EAGAIN);

    expect_failed_start();

    ASSERT_EQ(recording::trace_ids(), std::vector<uint32_t>{1});
    EXPECT_EQ(recording::traces()[0].text,
              std::string("[DS]: pthread_mutex_init failed, ") + strerror(EAGAIN) + "\n");
    EXPECT_EQ(recording::calls_with({"chunk_destroy", "vanto_protected_hashtable_release"}),
              (Lines{"chunk_destroy(selem)", "chunk_destroy(client)", "chunk_destroy(reg)",
                     "chunk_destroy(service)", "vanto_protected_hashtable_release()"}));
}

TEST_F(DatabaseTest, node_addresses_are_equal_over_exactly_six_bytes) {
    const uint8_t a[] = {1, 2, 3, 4, 5, 6, 7};
    const uint8_t b[] = {1, 2, 3, 4, 5, 6, 8};
    const uint8_t c[] = {1, 2, 3, 4, 5, 7, 7};
    const vanto_key_equals_fn equals = db()->node_table.key_equals;

    EXPECT_NE(equals(a, b), 0) << "the seventh byte is not part of an address";
    EXPECT_EQ(equals(a, c), 0);
    EXPECT_NE(equals(a, a), 0);
}

TEST_F(DatabaseTest, node_addresses_hash_into_the_low_seven_bits) {
    for (uint32_t value = 0; value < 256; ++value) {
        const uint8_t address[6] = {0xff, 0x80, 0, 1, 2, static_cast<uint8_t>(value)};

        const uint64_t hash = db()->node_table.key_hash(address);

        EXPECT_EQ(hash, ds_hash_string(address, 6) & 127);
    }
}

TEST_F(DatabaseTest, a_node_record_is_made_once_per_address) {
    ds_node_t *node = new_node(7);

    EXPECT_EQ(new_node(7), node);
    EXPECT_NE(new_node(8), node);
    EXPECT_STREQ(node->name, "02:00:00:00:00:07");
    EXPECT_EQ(node->addr[5], 7);
    EXPECT_EQ(node->services_added, 0u);
}
