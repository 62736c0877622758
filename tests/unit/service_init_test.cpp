// Service records: creation and the holding of publish infos.
#include <unistd.h>

#include "library_test.h"

namespace {

class ServiceInitTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        web = new_element("web");
        recording::clear_calls();
    }

    int init(ds_service_publish_info *info, ds_client_t *client = nullptr, uint32_t proc_id = 77,
             uint32_t service_id = 0) {
        return ds_db_init_service(proc_id, local_node, info, web->name_hash, &service, client, web,
                                  service_id);
    }

    void drop() { ds_db_drop_service(service); }

    ds_service_elem_t *web = nullptr;
    ds_service_t *service = nullptr;
};

PublishInfoBuilder one_endpoint() {
    return PublishInfoBuilder("web").endpoints(1).scope(2);
}

} // namespace

TEST_F(ServiceInitTest, a_new_record_has_generation_1_and_the_callers_identity) {
    ds_service_publish_info *info = new_info(one_endpoint().instance("blue"));

    ASSERT_EQ(init(info, nullptr, 77, 0x500), 0);

    EXPECT_EQ(service->service_id, 0x500u);
    EXPECT_EQ(service->proc_id, 77u);
    EXPECT_EQ(service->pid, 77u) << "without a client the pid is the proc id";
    EXPECT_EQ(service->node, local_node);
    EXPECT_EQ(service->name_hash, web->name_hash);
    EXPECT_EQ(service->gen, 1u);
    EXPECT_EQ(service->prev_ver, 0u);
    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(service->publish_info, info);
    EXPECT_EQ(service->scope, 2u);
    EXPECT_STREQ(service->instance, "blue");
    EXPECT_NE(service->instance, info->entries[0].instance) << "a private copy";
    EXPECT_EQ(service->selem, web);
    EXPECT_EQ(service->selem_link.prev, nullptr);
    EXPECT_EQ(service->client_link.prev, nullptr);
    EXPECT_EQ(service->added_time, 0u);
    EXPECT_EQ(web->selem_version, 0u);
    drop();
}

TEST_F(ServiceInitTest, an_info_without_instance_gives_a_record_without_instance) {
    ASSERT_EQ(init(new_info(one_endpoint())), 0);

    EXPECT_EQ(service->instance, nullptr);
    drop();
}

TEST_F(ServiceInitTest, the_pid_is_the_clients_when_a_client_is_given) {
    ds_client_t *client = new_client(0x10, 4711);
    recording::clear_calls();

    ASSERT_EQ(init(new_info(one_endpoint()), client, client->client_idx), 0);

    EXPECT_EQ(service->pid, 4711u);
    EXPECT_EQ(service->proc_id, client->client_idx);
    EXPECT_EQ(recording::calls_with({"slot46"}), Lines{"slot46(0x10)"});
    drop();
}

TEST_F(ServiceInitTest, ids_are_counted_up_from_the_servers_pid) {
    const uint32_t first = static_cast<uint32_t>(getpid()) << 16;

    init(new_info(one_endpoint()));
    EXPECT_EQ(service->service_id, first);
    drop();
    init(new_info(one_endpoint()));
    EXPECT_EQ(service->service_id, first + 1);
    drop();
    EXPECT_EQ(db()->next_service_id, first + 2);
}

TEST_F(ServiceInitTest, a_given_id_leaves_the_counter_alone) {
    const uint32_t before = db()->next_service_id;

    init(new_info(one_endpoint()), nullptr, 77, 9);

    EXPECT_EQ(service->service_id, 9u);
    EXPECT_EQ(db()->next_service_id, before);
    drop();
}

TEST_F(ServiceInitTest, the_id_counter_wraps_around) {
    db()->next_service_id = 0xffffffff;

    init(new_info(one_endpoint()));

    EXPECT_EQ(service->service_id, 0xffffffffu);
    EXPECT_EQ(db()->next_service_id, 0u);
    drop();
}

TEST_F(ServiceInitTest, the_info_is_taken_under_the_mutex_and_read_without_it) {
    ds_service_publish_info *info = new_info(one_endpoint().instance("blue"));

    init(info);

    EXPECT_EQ(recording::calls_with({"chunk", "lock", "unlock", "ds_get"}),
              (Lines{"chunk_malloc(service) = service#1", "lock()", "unlock()", "ds_get_scope()",
                     "ds_get_instance()"}));
    EXPECT_EQ(info->held, 1);
    drop();
}

TEST_F(ServiceInitTest, a_borrowed_info_is_copied_at_its_top_level_only) {
    ds_service_publish_info storage;
    one_endpoint().build_borrowed(&storage);
    recording::clear_calls();

    ASSERT_EQ(init(&storage), 0);

    EXPECT_NE(service->publish_info, &storage);
    EXPECT_EQ(service->publish_info->borrowed, 0);
    EXPECT_EQ(service->publish_info->held, 1);
    EXPECT_EQ(storage.held, 1) << "the owner sees that its contents are gone";
    EXPECT_EQ(storage.borrowed, 1);
    EXPECT_EQ(service->publish_info->entries, storage.entries);
    EXPECT_EQ(service->publish_info->service_name, storage.service_name);
    EXPECT_EQ(recording::calls_with({"malloc", "lock", "unlock"}),
              (Lines{"lock()", "malloc(32)", "unlock()"}));
    drop();
}

TEST_F(ServiceInitTest, a_borrowed_info_that_cannot_be_copied_is_logged_and_stays_the_callers) {
    ds_service_publish_info storage;
    one_endpoint().build_borrowed(&storage);
    const uint32_t next_id = db()->next_service_id;
    recording::clear_calls();
    recording::fail("malloc", 1);

    EXPECT_EQ(init(&storage), -1);

    EXPECT_EQ(service, nullptr);
    EXPECT_EQ(storage.held, 0);
    EXPECT_EQ(recording::trace_ids(), std::vector<uint32_t>{3});
    EXPECT_EQ(recording::traces()[0].text, "[DS]: ds_service_publish_info_dup for web failed\n");
    EXPECT_EQ(recording::calls_with({"rtrace", "chunk_free"}),
              (Lines{"rtrace_internal(err, 3)", "chunk_free(service, service#1)"}));
    EXPECT_EQ(db()->next_service_id, next_id + 1) << "the number is used up";
    free_publish_info(&storage);
}

TEST_F(ServiceInitTest, a_failed_copy_still_reads_scope_and_instance_first) {
    ds_service_publish_info storage;
    one_endpoint().build_borrowed(&storage);
    recording::clear_calls();
    recording::fail("malloc", 1);

    init(&storage);

    EXPECT_EQ(recording::calls_with({"ds_get", "rtrace"}),
              (Lines{"ds_get_scope()", "ds_get_instance()", "rtrace_internal(err, 3)"}));
    free_publish_info(&storage);
}

TEST_F(ServiceInitTest, an_instance_that_cannot_be_copied_leaves_the_info_to_the_caller) {
    ds_service_publish_info *info = new_info(one_endpoint().instance("blue"));
    recording::fail("malloc", 1);

    EXPECT_EQ(init(info), -1);

    EXPECT_EQ(service, nullptr);
    EXPECT_EQ(info->held, 0);
    EXPECT_STREQ(info->entries[0].instance, "blue");
    EXPECT_TRUE(recording::traces().empty());
    EXPECT_EQ(recording::calls_with({"chunk_free"}), Lines{"chunk_free(service, service#1)"});
}

TEST_F(ServiceInitTest, a_borrowed_info_without_room_for_the_instance_is_given_back_whole) {
    ds_service_publish_info storage;
    one_endpoint().instance("blue").build_borrowed(&storage);
    recording::fail("malloc", 2);

    EXPECT_EQ(init(&storage), -1);

    EXPECT_EQ(storage.held, 0);
    EXPECT_STREQ(storage.entries[0].instance, "blue");
    EXPECT_TRUE(recording::traces().empty());
    free_publish_info(&storage);
}

TEST_F(ServiceInitTest, an_exhausted_pool_fails_before_anything_is_taken) {
    ds_service_publish_info *info = new_info(one_endpoint());
    const uint32_t next_id = db()->next_service_id;
    recording::fail("chunk_malloc");

    EXPECT_EQ(init(info), -1);

    EXPECT_EQ(service, nullptr);
    EXPECT_EQ(info->held, 0);
    EXPECT_EQ(db()->next_service_id, next_id);
    EXPECT_TRUE(recording::traces().empty());
}

TEST_F(ServiceInitTest, an_info_without_endpoints_has_scope_0) {
    ASSERT_EQ(init(new_info(PublishInfoBuilder("web"))), 0);

    EXPECT_EQ(service->scope, 0u);
    EXPECT_EQ(service->instance, nullptr);
    drop();
}

TEST_F(ServiceInitTest, null_arguments_are_refused) {
    ds_service_publish_info *info = new_info(one_endpoint());

    EXPECT_EQ(init(nullptr), -1);
    EXPECT_EQ(ds_db_init_service(77, local_node, info, 0, nullptr, nullptr, web, 0), -1);
    EXPECT_EQ(ds_db_init_service(77, local_node, info, 0, &service, nullptr, nullptr, 0), -1);
    forget_database();
    EXPECT_EQ(init(info), -1);
    restore_database();
    EXPECT_EQ(info->held, 0);
    EXPECT_EQ(recording::calls_with({"chunk"}), Lines{});
}

TEST_F(ServiceInitTest, a_node_that_names_no_record_is_only_kept) {
    for (const uintptr_t id : {uintptr_t{0}, uintptr_t{1}, uintptr_t{127}}) {
        ASSERT_EQ(ds_db_init_service(77, unrecorded_node(id), new_info(one_endpoint()), 0, &service,
                                     nullptr, web, 0),
                  0);
        EXPECT_EQ(service->node, unrecorded_node(id));
        drop();
    }
}
