// Service records: linking, updating, deleting and freeing.
#include "library_test.h"

namespace {

class ServiceTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        web = new_element("web");
        client = new_client(0x10, 100);
        remote_node = new_node(2);
        recording::clear_calls();
    }

    ds_service_t *unlinked(ds_client_t *owner, ds_node_t *node, uint32_t proc_id) {
        ds_service_t *service = nullptr;
        EXPECT_EQ(ds_db_init_service(proc_id, node, new_info(info()), web->name_hash, &service,
                                     owner, web, 0),
                  0);
        return service;
    }

    static PublishInfoBuilder info() { return PublishInfoBuilder("web").endpoints(1).scope(2); }

    ds_service_t *local_service() { return new_service(web, info(), client); }
    ds_service_t *remote_service() { return new_service(web, info(), nullptr, remote_node, 500); }
    ds_service_t *placeholder(ds_node_t *node) {
        return new_service(web, info(), nullptr, node, 1);
    }

    ds_service_elem_t *web = nullptr;
    ds_client_t *client = nullptr;
    ds_node_t *remote_node = nullptr;
};

} // namespace

// ---- adding ----

TEST_F(ServiceTest, adding_links_under_the_mutex_with_one_stamp) {
    ds_service_t *service = unlinked(client, local_node, 11);
    recording::clear_calls();
    recording::set_stamp(5000);

    EXPECT_EQ(ds_db_add_service(service, client), 0);

    EXPECT_EQ(
        recording::calls(),
        (Lines{"lock()", "dbly_linkage_link(selem#1.service_list, service#1.selem_link)",
               "fts_get_stamp_fast()",
               "dbly_linkage_link(client#1.service_list, service#1.client_link)", "unlock()"}));
    EXPECT_EQ(service->added_time, 5000u);
    EXPECT_EQ(web->last_add_time, 5000u);
    EXPECT_EQ(client->last_activity_time, 5000u);
    EXPECT_EQ(local_node->last_change_time, 5000u);
}

TEST_F(ServiceTest, adding_a_local_service_counts_it_as_local) {
    local_service();

    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(web->local_services_added, 1u);
    EXPECT_EQ(web->remote_services_added, 0u);
    EXPECT_EQ(web->remote_change_count, 0u);
    EXPECT_EQ(db()->local_services_added, 1u);
    EXPECT_EQ(db()->remote_services_added, 0u);
    EXPECT_EQ(client->services_published, 1u);
    EXPECT_EQ(local_node->services_added, 1u);
}

TEST_F(ServiceTest, adding_a_remote_service_counts_it_as_remote) {
    remote_service();

    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(web->local_services_added, 0u);
    EXPECT_EQ(web->remote_services_added, 1u);
    EXPECT_EQ(web->remote_change_count, 1u);
    EXPECT_EQ(db()->local_services_added, 0u);
    EXPECT_EQ(db()->remote_services_added, 1u);
    EXPECT_EQ(remote_node->services_added, 1u);
    EXPECT_EQ(local_node->services_added, 0u);
    EXPECT_EQ(client->services_published, 0u);
}

TEST_F(ServiceTest, adding_a_remote_placeholder_counts_everywhere_but_at_its_node) {
    placeholder(remote_node);

    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(web->remote_services_added, 1u);
    EXPECT_EQ(web->remote_change_count, 1u);
    EXPECT_EQ(db()->remote_services_added, 1u);
    EXPECT_EQ(remote_node->services_added, 0u);
    EXPECT_EQ(remote_node->last_change_time, 0u);
}

TEST_F(ServiceTest, adding_a_local_placeholder_raises_only_the_version) {
    placeholder(local_node);

    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(web->local_services_added, 0u);
    EXPECT_EQ(db()->local_services_added, 0u);
    EXPECT_EQ(local_node->services_added, 0u);
}

TEST_F(ServiceTest, a_newer_service_stands_first_in_both_lists) {
    ds_service_t *first = local_service();
    ds_service_t *second = local_service();

    EXPECT_EQ(ds_service_get_service_list_head(web), second);
    EXPECT_EQ(ds_service_get_next_in_service_list(second), first);
    EXPECT_EQ(ds_client_get_service_list_head(client), second);
    EXPECT_EQ(ds_client_get_next_in_service_list(second), first);
}

TEST_F(ServiceTest, a_service_without_an_element_is_not_added) {
    ds_service_t *service = unlinked(nullptr, local_node, 11);
    service->selem = nullptr;
    recording::clear_calls();

    EXPECT_EQ(ds_db_add_service(service, client), -1);

    EXPECT_EQ(recording::calls(), (Lines{"lock()", "unlock()"}));
    EXPECT_EQ(client->services_published, 0u);
    ds_db_drop_service(service);
}

TEST_F(ServiceTest, a_node_that_names_no_record_is_not_counted) {
    for (const uintptr_t id : {uintptr_t{0}, uintptr_t{1}, uintptr_t{127}}) {
        ds_service_t *service = unlinked(nullptr, unrecorded_node(id), 500);

        EXPECT_EQ(ds_db_add_service(service, nullptr), 0);
        EXPECT_EQ(ds_db_update_service(service, new_info(info()), nullptr), 0);
        EXPECT_EQ(ds_db_delete_service(service, nullptr), 0);
    }
    EXPECT_EQ(db()->remote_services_added, 3u);
    EXPECT_EQ(db()->remote_services_updated, 3u);
    EXPECT_EQ(db()->remote_services_deleted, 3u);
}

// ---- updating ----

TEST_F(ServiceTest, updating_releases_the_old_info_under_the_mutex_before_the_stamp) {
    ds_service_t *service = local_service();
    ds_service_publish_info *newer = new_info(info());
    recording::clear_calls();
    recording::set_stamp(6000);

    EXPECT_EQ(ds_db_update_service(service, newer, client), 0);

    EXPECT_EQ(recording::calls_with({"lock", "unlock", "fts", "vidl", "malloc", "dbly"}),
              (Lines{"lock()", "vidl_ds_service_publish_info_free_ext(0)", "fts_get_stamp_fast()",
                     "unlock()"}));
    EXPECT_EQ(service->publish_info, newer);
    EXPECT_EQ(newer->held, 1);
    EXPECT_EQ(service->update_time, 6000u);
    EXPECT_EQ(web->last_modify_time, 6000u);
    EXPECT_EQ(client->last_activity_time, 6000u);
    EXPECT_EQ(local_node->last_change_time, 6000u);
}

TEST_F(ServiceTest, a_borrowed_info_is_copied_before_the_lock) {
    ds_service_t *service = local_service();
    ds_service_publish_info storage;
    info().build_borrowed(&storage);
    recording::clear_calls();

    EXPECT_EQ(ds_db_update_service(service, &storage, client), 0);

    EXPECT_EQ(recording::calls_with({"malloc", "lock"}), (Lines{"malloc(32)", "lock()"}));
    EXPECT_NE(service->publish_info, &storage);
    EXPECT_EQ(service->publish_info->borrowed, 0);
    EXPECT_EQ(storage.held, 1);
}

TEST_F(ServiceTest, updating_raises_generation_and_version_and_keeps_scope_and_instance) {
    ds_service_t *service = new_service(web, info().instance("blue"), client);

    ds_db_update_service(service, new_info(info().scope(1).instance("red")), client);

    EXPECT_EQ(service->gen, 2u);
    EXPECT_EQ(web->selem_version, 2u);
    EXPECT_EQ(service->scope, 2u);
    EXPECT_STREQ(service->instance, "blue");
}

TEST_F(ServiceTest, updating_a_local_service_counts_it_as_local) {
    ds_service_t *service = local_service();

    ds_db_update_service(service, new_info(info()), client);

    EXPECT_EQ(web->local_services_updated, 1u);
    EXPECT_EQ(web->remote_services_updated, 0u);
    EXPECT_EQ(web->remote_change_count, 0u);
    EXPECT_EQ(db()->local_services_updated, 1u);
    EXPECT_EQ(db()->remote_services_updated, 0u);
    EXPECT_EQ(client->services_updated, 1u);
    EXPECT_EQ(local_node->services_updated, 1u);
}

TEST_F(ServiceTest, updating_a_remote_service_counts_it_as_remote) {
    ds_service_t *service = remote_service();

    ds_db_update_service(service, new_info(info()), nullptr);

    EXPECT_EQ(web->local_services_updated, 0u);
    EXPECT_EQ(web->remote_services_updated, 1u);
    EXPECT_EQ(web->remote_change_count, 2u);
    EXPECT_EQ(db()->remote_services_updated, 1u);
    EXPECT_EQ(remote_node->services_updated, 1u);
}

TEST_F(ServiceTest, updating_a_placeholder_counts_for_the_client_only) {
    ds_service_t *service = placeholder(remote_node);

    ds_db_update_service(service, new_info(info()), client);

    EXPECT_EQ(web->remote_services_updated, 0u);
    EXPECT_EQ(web->local_services_updated, 0u);
    EXPECT_EQ(web->remote_change_count, 1u) << "from the add";
    EXPECT_EQ(db()->remote_services_updated, 0u);
    EXPECT_EQ(remote_node->services_updated, 0u);
    EXPECT_EQ(client->services_updated, 1u);
    EXPECT_EQ(web->selem_version, 2u);
    EXPECT_EQ(service->gen, 2u);
}

TEST_F(ServiceTest, a_client_takes_over_a_placeholder_log_line_first) {
    ds_service_t *service = placeholder(local_node);
    ds_service_publish_info *newer = new_info(info());
    recording::clear_calls();

    ds_db_update_service(service, newer, client);

    EXPECT_EQ(
        recording::calls_with({"lock", "unlock", "fts", "dbly", "rtrace"}),
        (Lines{"lock()", "fts_get_stamp_fast()", "rtrace_internal(pub, 5)",
               "dbly_linkage_link(client#1.service_list, service#1.client_link)", "unlock()"}));
    EXPECT_EQ(recording::traces()[0].text, "[DS]: <<-Link service for client:0x10");
    EXPECT_EQ(ds_client_get_service_list_head(client), service);
    EXPECT_EQ(service->proc_id, 1u) << "its identity is the caller's business";
}

TEST_F(ServiceTest, a_second_take_over_leaves_the_clients_list_sound) {
    ds_service_t *service = placeholder(local_node);
    ds_db_update_service(service, new_info(info()), client);

    ds_db_update_service(service, new_info(info()), client);

    EXPECT_EQ(ds_client_get_service_list_head(client), service);
    EXPECT_EQ(ds_client_get_next_in_service_list(service), nullptr);
}

TEST_F(ServiceTest, another_client_can_take_the_placeholder_over) {
    ds_client_t *other = new_client(0x20, 200);
    ds_service_t *service = placeholder(local_node);
    ds_db_update_service(service, new_info(info()), client);

    ds_db_update_service(service, new_info(info()), other);

    EXPECT_EQ(ds_client_get_service_list_head(client), nullptr);
    EXPECT_EQ(ds_client_get_service_list_head(other), service);
}

TEST_F(ServiceTest, a_placeholder_updated_without_client_joins_no_list) {
    ds_service_t *service = placeholder(local_node);
    recording::clear_calls();

    ds_db_update_service(service, new_info(info()), nullptr);

    EXPECT_EQ(recording::calls_with({"dbly", "rtrace"}), Lines{});
}

TEST_F(ServiceTest, an_update_whose_info_cannot_be_copied_keeps_the_old_one) {
    ds_service_t *service = local_service();
    ds_service_publish_info *old_info = service->publish_info;
    ds_service_publish_info storage;
    info().build_borrowed(&storage);
    recording::clear_calls();
    recording::fail("malloc", 1);

    EXPECT_EQ(ds_db_update_service(service, &storage, client), -1);

    EXPECT_EQ(service->publish_info, old_info);
    EXPECT_EQ(service->gen, 1u);
    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(client->services_updated, 0u);
    EXPECT_EQ(storage.held, 0);
    EXPECT_EQ(recording::calls(), (Lines{"malloc(32) = null", "rtrace_internal(err, 4)"}));
    EXPECT_EQ(recording::traces()[0].text, "[DS]: ds_service_publish_info_dup for web failed\n");
    free_publish_info(&storage);
}

TEST_F(ServiceTest, an_update_with_the_info_it_already_holds_does_not_free_it) {
    ds_service_t *service = local_service();

    EXPECT_EQ(ds_db_update_service(service, service->publish_info, client), 0);

    EXPECT_EQ(service->gen, 2u);
    EXPECT_STREQ(service->publish_info->service_name, "web");
}

TEST_F(ServiceTest, an_update_of_a_service_without_element_does_nothing) {
    ds_service_t *service = unlinked(nullptr, local_node, 11);
    ds_service_publish_info *newer = new_info(info());
    service->selem = nullptr;
    recording::clear_calls();

    EXPECT_EQ(ds_db_update_service(service, newer, client), 0);

    EXPECT_EQ(newer->held, 0);
    EXPECT_EQ(service->gen, 1u);
    EXPECT_EQ(recording::calls(), Lines{});
    ds_db_drop_service(service);
}

TEST_F(ServiceTest, the_generation_wraps_around) {
    ds_service_t *service = local_service();
    service->gen = 0xffffffff;

    ds_db_update_service(service, new_info(info()), client);

    EXPECT_EQ(service->gen, 0u);
}

// ---- deleting ----

TEST_F(ServiceTest, deleting_happens_under_the_mutex_with_one_stamp) {
    ds_service_t *service = local_service();
    recording::clear_calls();
    recording::set_stamp(8000);

    EXPECT_EQ(ds_db_delete_service(service, client), 0);

    EXPECT_EQ(recording::calls_with({"lock", "unlock", "fts", "vidl", "dbly", "chunk"}),
              (Lines{"lock()", "fts_get_stamp_fast()", "vidl_ds_service_publish_info_free_ext(0)",
                     "dbly_linkage_delink(service#1.client_link)",
                     "dbly_linkage_delink(service#1.selem_link)", "chunk_free(service, service#1)",
                     "unlock()"}));
    EXPECT_EQ(web->last_delete_time, 8000u);
    EXPECT_EQ(web->last_modify_time, 8000u);
    EXPECT_EQ(client->last_activity_time, 8000u);
    EXPECT_EQ(local_node->last_change_time, 8000u);
}

TEST_F(ServiceTest, deleting_a_local_service_counts_it_as_local) {
    ds_db_delete_service(local_service(), client);

    EXPECT_EQ(web->selem_version, 2u);
    EXPECT_EQ(web->local_services_deleted, 1u);
    EXPECT_EQ(web->remote_services_deleted, 0u);
    EXPECT_EQ(web->remote_change_count, 0u);
    EXPECT_EQ(db()->local_services_deleted, 1u);
    EXPECT_EQ(client->services_deleted, 1u);
    EXPECT_EQ(local_node->services_deleted, 1u);
    EXPECT_EQ(ds_client_get_service_list_head(client), nullptr);
}

TEST_F(ServiceTest, deleting_a_remote_service_counts_it_as_remote) {
    ds_db_delete_service(remote_service(), nullptr);

    EXPECT_EQ(web->selem_version, 2u);
    EXPECT_EQ(web->local_services_deleted, 0u);
    EXPECT_EQ(web->remote_services_deleted, 1u);
    EXPECT_EQ(web->remote_change_count, 2u);
    EXPECT_EQ(db()->remote_services_deleted, 1u);
    EXPECT_EQ(remote_node->services_deleted, 1u);
}

TEST_F(ServiceTest, deleting_a_placeholder_leaves_version_and_counters_alone) {
    ds_service_t *service = placeholder(remote_node);
    const uint64_t last_stamp = recording::last_stamp();
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_service(service, client), 0);

    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(web->last_delete_time, 0u);
    EXPECT_EQ(web->last_modify_time, 0u);
    EXPECT_EQ(web->remote_change_count, 1u);
    EXPECT_EQ(web->remote_services_deleted, 0u);
    EXPECT_EQ(db()->remote_services_deleted, 0u);
    EXPECT_EQ(client->services_deleted, 0u);
    EXPECT_EQ(client->last_activity_time, 0u);
    EXPECT_EQ(remote_node->services_deleted, 0u);
    EXPECT_EQ(recording::last_stamp(), last_stamp);
    EXPECT_EQ(recording::calls_with({"dbly"}), Lines{"dbly_linkage_delink(service#1.selem_link)"});
}

TEST_F(ServiceTest, deleting_a_taken_over_placeholder_removes_it_from_its_clients_list) {
    ds_service_t *service = placeholder(local_node);
    ds_db_update_service(service, new_info(info()), client);

    ds_db_delete_service(service, client);

    EXPECT_EQ(ds_client_get_service_list_head(client), nullptr);
}

TEST_F(ServiceTest, deleting_releases_the_instance_text) {
    ds_service_t *service = new_service(web, info().instance("blue"), client);
    const size_t blocks = recording::live_allocations();

    ds_db_delete_service(service, client);

    // Gone: the info with name, entries, address and instance, and the record's own copy.
    EXPECT_EQ(recording::live_allocations(), blocks - 6);
}

TEST_F(ServiceTest, deleting_nothing_succeeds) {
    EXPECT_EQ(ds_db_delete_service(nullptr, client), 0);

    EXPECT_EQ(client->services_deleted, 0u);
}

// ---- freeing ----

TEST_F(ServiceTest, freeing_takes_no_lock_and_counts_nothing) {
    ds_service_t *service = local_service();
    recording::clear_calls();

    EXPECT_EQ(ds_db_free_service(service), 0);

    EXPECT_EQ(
        recording::calls_without({"free"}),
        (Lines{"vidl_ds_service_publish_info_free_ext(0)",
               "dbly_linkage_delink(service#1.client_link)",
               "dbly_linkage_delink(service#1.selem_link)", "chunk_free(service, service#1)"}));
    EXPECT_EQ(web->selem_version, 1u);
    EXPECT_EQ(db()->local_services_deleted, 0u);
}

TEST_F(ServiceTest, freeing_leaves_the_instance_text_to_the_caller) {
    ds_service_t *service = new_service(web, info().instance("blue"), client);
    char *instance = service->instance;

    ds_db_free_service(service);

    EXPECT_STREQ(instance, "blue");
    recording::host_free(instance);
}

TEST_F(ServiceTest, freeing_a_record_without_info_skips_the_info) {
    ds_service_t *service = local_service();
    free_publish_info(service->publish_info);
    service->publish_info = nullptr;
    recording::clear_calls();

    EXPECT_EQ(ds_db_free_service(service), 0);

    EXPECT_EQ(recording::calls_with({"vidl"}), Lines{});
}

TEST_F(ServiceTest, freeing_nothing_succeeds) {
    EXPECT_EQ(ds_db_free_service(nullptr), 0);
    ds_db_drop_service(nullptr);
}

// ---- robustness ----

TEST_F(ServiceTest, null_arguments_and_a_missing_database_are_refused) {
    ds_service_t *service = local_service();
    ds_service_publish_info *newer = new_info(info());

    EXPECT_EQ(ds_db_add_service(nullptr, client), -1);
    EXPECT_EQ(ds_db_update_service(nullptr, newer, client), -1);
    EXPECT_EQ(ds_db_update_service(service, nullptr, client), -1);
    forget_database();
    EXPECT_EQ(ds_db_add_service(service, client), -1);
    EXPECT_EQ(ds_db_update_service(service, newer, client), -1);
    ds_db_delete_service(service, client);
    restore_database();
    EXPECT_EQ(service->gen, 1u);
    EXPECT_EQ(newer->held, 0);
    EXPECT_EQ(ds_service_get_service_list_head(web), service);
}
