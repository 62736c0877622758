// Publishing by a client: new and changed instances, their log points, counters, order and
// failures.
#include "lifecycle_fixture.h"

namespace {

class PublishTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        recording::clear_calls();
    }

    ds_client_t *publisher = nullptr;
};

ds_globals_t *block_to_empty;

// A host that loses its database while the library asks it for a pid.
long lose_the_database(uint64_t) {
    block_to_empty->slot[DS_GLOBAL_SLOT_DB] = 0;
    return 100;
}

} // namespace

TEST_F(PublishTest, without_an_info_it_fails_and_does_nothing) {
    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, nullptr, nullptr), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(PublishTest, without_a_database_it_fails_and_does_nothing) {
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    forget_database();

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), -1);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(info->held, 0);
}

TEST_F(PublishTest, without_a_block_it_fails_and_does_nothing) {
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    ds_globals_set(nullptr);

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), -1);

    EXPECT_EQ(recording::calls(), Lines{});
    ds_globals_set(&globals);
}

TEST_F(PublishTest, an_info_without_a_name_fails_without_a_log_line) {
    ds_service_publish_info info;
    VIDL_CLEAR(&info);

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, &info, nullptr), -1);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_EQ(db()->selem_tree.count, 0u);
    EXPECT_EQ(info.held, 0);
}

TEST_F(PublishTest, the_first_publication_makes_the_element_and_the_record) {
    const uint32_t first_id = db()->next_service_id;
    ds_service_publish_info *info = new_info(one_endpoint("web", 1).instance("a"));
    recording::set_stamp(5000);

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), 0);

    ds_service_t *service = newest("web");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->service_id, first_id);
    EXPECT_EQ(service->proc_id, publisher->client_idx);
    EXPECT_EQ(service->pid, 100u);
    EXPECT_EQ(service->node, local_node);
    EXPECT_EQ(service->gen, 1u);
    EXPECT_EQ(service->prev_ver, 0u);
    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(service->publish_info, info);
    EXPECT_EQ(service->scope, 1u);
    EXPECT_STREQ(service->instance, "a");
    EXPECT_EQ(service->selem, element("web"));
    EXPECT_EQ(service->added_time, 5000u);
    EXPECT_EQ(service->update_time, 0u);
    EXPECT_EQ(info->held, 1);
    EXPECT_EQ(element("web")->selem_version, 1u);
}

TEST_F(PublishTest, a_new_service_moves_the_counters_of_all_it_belongs_to) {
    recording::set_stamp(5000);

    publish(publisher, one_endpoint("web"));

    EXPECT_EQ(db()->local_services_added, 1u);
    EXPECT_EQ(db()->remote_services_added, 0u);
    EXPECT_EQ(element("web")->local_services_added, 1u);
    EXPECT_EQ(element("web")->last_add_time, 5000u);
    EXPECT_EQ(publisher->services_published, 1u);
    EXPECT_EQ(publisher->last_activity_time, 5000u);
    EXPECT_EQ(local_node->services_added, 1u);
    EXPECT_EQ(local_node->last_change_time, 5000u);
    EXPECT_EQ(services_of(publisher), services_of(element("web")));
}

TEST_F(PublishTest, a_new_replicated_service_is_logged_then_sent_then_announced) {
    set_connected();
    watch(new_watcher(), "web");
    recording::clear_calls();

    publish(publisher, one_endpoint("web", 2));

    const std::string update = "dsr_dsc_send_update(1, \"web\", " +
                               std::to_string(newest("web")->service_id) +
                               ", null, 2, 100, 1, 9, 0, 0)";
    EXPECT_EQ(recording::joined(steps()),
              recording::joined({"avl_search(db.selem_tree) = selem#1",
                                 "avl_search(db.selem_tree) = selem#1",
                                 "chunk_malloc(service) = service#1",
                                 "slot46(0x10)",
                                 "dbly_linkage_link(selem#1.service_list, service#1.selem_link)",
                                 "fts_get_stamp_fast()",
                                 "dbly_linkage_link(client#1.service_list, service#1.client_link)",
                                 "slot46(0x10)",
                                 "rtrace_internal(pub, 36)",
                                 "rtrace_internal(pub, 62)",
                                 "malloc(1)",
                                 "vidl_ds_service_attrs_encode_ext(0, 0)",
                                 "fts_get_stamp_fast()",
                                 update,
                                 "rtrace_internal(pub, 76)",
                                 "rtrace_internal(pub, 62)",
                                 "free()",
                                 "rtrace_internal(notif, 65)",
                                 "malloc(64)",
                                 "slot41(web, 1 entries)",
                                 "fts_get_stamp_fast()",
                                 "fts_get_stamp_fast()",
                                 "slot46(0x20)",
                                 "rtrace_internal(notif, 73)",
                                 "slot44(0x20, handle 1, web, 1 entries)",
                                 "free()"}));
}

TEST_F(PublishTest, a_change_is_logged_with_its_old_endpoint_before_the_update) {
    set_connected();
    publish(publisher, one_endpoint("web", 2, 1));
    recording::clear_calls();

    publish(publisher, one_endpoint("web", 2, 2));

    const std::string update = "dsr_dsc_send_update(2, \"web\", " +
                               std::to_string(newest("web")->service_id) +
                               ", null, 2, 100, 2, 9, 0, 0)";
    EXPECT_EQ(recording::joined(steps()),
              recording::joined({"avl_search(db.selem_tree) = selem#1",
                                 "avl_search(db.selem_tree) = selem#1",
                                 "slot46(0x10)",
                                 "rtrace_internal(pub, 31)",
                                 "rtrace_internal(pub, 62)",
                                 "vidl_ds_service_publish_info_free_ext(0)",
                                 "free()",
                                 "free()",
                                 "free()",
                                 "free()",
                                 "fts_get_stamp_fast()",
                                 "malloc(1)",
                                 "vidl_ds_service_attrs_encode_ext(0, 0)",
                                 "fts_get_stamp_fast()",
                                 update,
                                 "rtrace_internal(pub, 76)",
                                 "rtrace_internal(pub, 62)",
                                 "free()",
                                 "rtrace_internal(notif, 65)",
                                 "malloc(64)",
                                 "slot41(web, 1 entries)",
                                 "free()"}));
    const Lines endpoints = texts(62);
    ASSERT_EQ(endpoints.size(), 2u);
    EXPECT_NE(endpoints[0].find("ip=10.0.0.1"), std::string::npos);
    EXPECT_NE(endpoints[1].find("ip=10.0.0.2"), std::string::npos);
}

TEST_F(PublishTest, a_repeated_publication_raises_the_generation_of_one_record) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    recording::set_stamp(6000);

    EXPECT_EQ(publish(publisher, one_endpoint("web", 1, 9).instance("a")), 0);

    ASSERT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(newest("web")->gen, 2u);
    EXPECT_EQ(newest("web")->update_time, 6000u);
    EXPECT_EQ(newest("web")->publish_info->entries[0].ep_addr[4], 9);
    EXPECT_EQ(element("web")->selem_version, 2u);
    EXPECT_EQ(element("web")->last_modify_time, 6000u);
    EXPECT_EQ(element("web")->local_services_updated, 1u);
    EXPECT_EQ(db()->local_services_updated, 1u);
    EXPECT_EQ(publisher->services_updated, 1u);
    EXPECT_EQ(local_node->services_updated, 1u);
}

TEST_F(PublishTest, the_first_change_is_logged_as_new_and_the_next_as_modified) {
    publish(publisher, one_endpoint("web", 1));
    publish(publisher, one_endpoint("web", 1));
    publish(publisher, one_endpoint("web", 1));

    const std::string head = "CLIENT[pid:100/0x10]->DS pub web@RACK/gen:";
    EXPECT_EQ(texts(36), Lines{head + "1/ver:1/node[02:00:00:00:00:ff] ...new service\n"});
    EXPECT_EQ(texts(31), (Lines{head + "1/ver:1/node[02:00:00:00:00:ff] ...new service\n",
                                head + "2/ver:2/node[02:00:00:00:00:ff] ...modified service\n"}));
}

TEST_F(PublishTest, each_scope_has_its_name_in_the_log_line) {
    const std::pair<uint32_t, const char *> scopes[] = {
        {0, "s@UNKNOWN/"}, {1, "s@RACK/"}, {2, "s@SYSTEM/"}, {3, "s@LOCAL/"}, {7, "s@UNKNOWN/"}};
    for (const auto &[scope, text] : scopes) {
        recording::clear_calls();

        // The instances keep the publications apart: scope 0 would match any record.
        publish(publisher, one_endpoint("s", scope).instance(std::to_string(scope)));

        ASSERT_EQ(texts(36).size(), 1u);
        EXPECT_NE(texts(36)[0].find(text), std::string::npos) << texts(36)[0];
    }
}

TEST_F(PublishTest, only_scopes_rack_and_system_reach_the_relay) {
    set_connected();
    const std::pair<uint32_t, size_t> scopes[] = {{0, 0}, {1, 1}, {2, 1}, {3, 0}, {4, 0}};
    for (const auto &[scope, updates] : scopes) {
        const std::string name = "svc" + std::to_string(scope);
        recording::clear_calls();

        publish(publisher, one_endpoint(name, scope));
        EXPECT_EQ(recording::sent_updates().size(), updates) << "new, scope " << scope;

        publish(publisher, one_endpoint(name, scope));
        EXPECT_EQ(recording::sent_updates().size(), 2 * updates) << "changed, scope " << scope;
        EXPECT_EQ(newest(name)->prev_ver, updates == 0 ? 0u : 2u);
    }
}

TEST_F(PublishTest, the_scope_of_the_new_info_decides_whether_a_change_is_sent) {
    set_connected();
    publish(publisher, one_endpoint("web", 2));
    recording::clear_calls();

    publish(publisher, one_endpoint("web", 0));

    EXPECT_EQ(newest("web")->gen, 2u);
    EXPECT_EQ(newest("web")->scope, 2u);
    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(PublishTest, another_scope_client_or_instance_makes_another_record) {
    ds_client_t *other = new_client(0x30, 300);
    publish(publisher, one_endpoint("web", 1).instance("a"));

    publish(publisher, one_endpoint("web", 2).instance("a"));
    publish(publisher, one_endpoint("web", 1).instance("b"));
    publish(other, one_endpoint("web", 1).instance("a"));

    EXPECT_EQ(services_of(element("web")).size(), 4u);
    for (const ds_service_t *service : services_of(element("web")))
        EXPECT_EQ(service->gen, 1u);
}

TEST_F(PublishTest, an_instance_changes_the_newest_record_that_begins_with_it) {
    publish(publisher, one_endpoint("web", 1).instance("node1"));
    publish(publisher, one_endpoint("web", 1).instance("node12"));
    ASSERT_EQ(services_of(element("web")).size(), 2u);

    publish(publisher, one_endpoint("web", 1).instance("node1"));

    const auto services = services_of(element("web"));
    ASSERT_EQ(services.size(), 2u);
    EXPECT_STREQ(services[0]->instance, "node12");
    EXPECT_EQ(services[0]->gen, 2u);
    EXPECT_EQ(services[1]->gen, 1u);
}

TEST_F(PublishTest, a_publication_with_an_instance_passes_by_a_record_without) {
    publish(publisher, one_endpoint("web", 1));

    publish(publisher, one_endpoint("web", 1).instance("a"));

    EXPECT_EQ(services_of(element("web")).size(), 2u);
}

TEST_F(PublishTest, an_unknown_client_fails_and_leaves_the_element) {
    ds_service_publish_info *info = new_info(one_endpoint("web", 2));
    set_connected();

    EXPECT_EQ(ds_db_publish_service(99, local_node, info, nullptr), -1);

    EXPECT_EQ(texts(44),
              Lines{"publish service web failed., ds_db_find_client_by_client_idx failed\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{44});
    ASSERT_NE(element("web"), nullptr);
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(info->held, 0);
    EXPECT_TRUE(sent.empty());
}

TEST_F(PublishTest, the_client_indexes_up_to_10_are_nobodys) {
    EXPECT_EQ(ds_db_publish_service(0, local_node, new_info(one_endpoint("web")), nullptr), -1);
    EXPECT_EQ(ds_db_publish_service(10, local_node, new_info(one_endpoint("web")), nullptr), -1);
}

TEST_F(PublishTest, without_memory_for_the_element_nothing_is_published) {
    recording::fail("chunk_malloc");

    EXPECT_EQ(publish(publisher, one_endpoint("web")), -1);

    EXPECT_EQ(texts(42),
              Lines{"[DS]: publish service web error., ds_db_init_service_element failed\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{42});
    EXPECT_EQ(db()->selem_tree.count, 0u);
}

TEST_F(PublishTest, without_memory_for_the_name_the_element_goes_back) {
    recording::fail("allocation");

    EXPECT_EQ(publish(publisher, one_endpoint("web")), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{42});
    EXPECT_EQ(call_order({"chunk_free"}), Lines{"chunk_free(selem, selem#1)"});
}

TEST_F(PublishTest, an_element_that_the_tree_refuses_is_released_and_the_result_returned) {
    recording::fail("avl_insert");

    EXPECT_EQ(publish(publisher, one_endpoint("web")), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{2});
    EXPECT_EQ(call_order({"chunk_free"}), Lines{"chunk_free(selem, selem#1)"});
    EXPECT_EQ(db()->selem_tree.count, 0u);
}

TEST_F(PublishTest, without_memory_for_the_record_the_element_stays) {
    recording::fail("chunk_malloc", 2);
    ds_service_publish_info *info = new_info(one_endpoint("web"));

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), -1);

    EXPECT_EQ(texts(33), Lines{"[DS]: ds_db_init_service for web failed\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{33});
    ASSERT_NE(element("web"), nullptr);
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(info->held, 0);
}

TEST_F(PublishTest, without_memory_for_the_instance_the_info_stays_its_owners) {
    new_element("web");
    recording::fail("malloc");
    ds_service_publish_info *info = new_info(one_endpoint("web").instance("a"));

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{33});
    EXPECT_EQ(info->held, 0);
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(call_order({"chunk_free"}), Lines{"chunk_free(service, service#1)"});
}

TEST_F(PublishTest, a_borrowed_info_gives_its_contents_to_the_record) {
    ds_service_publish_info info;
    one_endpoint("web").build_borrowed(&info);

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, &info, nullptr), 0);

    EXPECT_EQ(info.held, 1);
    EXPECT_NE(newest("web")->publish_info, &info);
    EXPECT_EQ(newest("web")->publish_info->entries, info.entries);
    EXPECT_EQ(newest("web")->publish_info->borrowed, 0);
}

TEST_F(PublishTest, a_borrowed_info_that_cannot_be_copied_fails_the_publication) {
    new_element("web");
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    info->borrowed = 1;
    recording::fail("malloc");

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), -1);

    EXPECT_EQ(recording::trace_ids(), (Ids{3, 33}));
    EXPECT_EQ(info->held, 0);
    info->borrowed = 0; // so that the fixture frees the structure, too
}

TEST_F(PublishTest, a_change_that_cannot_take_its_info_still_succeeds) {
    publish(publisher, one_endpoint("web", 3, 1));
    ds_service_publish_info *info = new_info(one_endpoint("web", 3, 2));
    info->borrowed = 1;
    recording::clear_calls();
    recording::fail("malloc");

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), 0);

    EXPECT_EQ(recording::trace_ids(), (Ids{31, 62, 4, 65}));
    EXPECT_EQ(newest("web")->gen, 1u);
    EXPECT_EQ(newest("web")->publish_info->entries[0].ep_addr[4], 1);
    EXPECT_EQ(info->held, 0);
    info->borrowed = 0;
}

TEST_F(PublishTest, a_record_that_cannot_be_added_is_reported_and_not_released) {
    publish(publisher, one_endpoint("other"));
    new_element("web");
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    block_to_empty = &globals;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_PID] = reinterpret_cast<uint64_t>(lose_the_database);
    recording::clear_calls();

    const int result = ds_db_publish_service(publisher->client_idx, local_node, info, nullptr);

    restore_database();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(texts(34), Lines{"[DS]: ds_db_add_service for web failed\n"});
    EXPECT_EQ(call_order({"chunk_free"}), Lines{});
    EXPECT_EQ(newest("web"), nullptr);
    expect_leaks();
}

TEST_F(PublishTest, several_endpoints_are_all_traced_and_announced) {
    watch(new_watcher(), "web");
    recording::clear_calls();

    publish(publisher, PublishInfoBuilder("web").endpoints(3));

    EXPECT_EQ(texts(62).size(), 3u);
    ASSERT_EQ(told().size(), 1u);
    EXPECT_EQ(told()[0].entries.size(), 3u);
}

TEST_F(PublishTest, a_publication_without_endpoints_tells_of_a_deletion_and_is_never_sent) {
    set_connected();
    watch(new_watcher(), "web");
    recording::clear_calls();

    EXPECT_EQ(publish(publisher, PublishInfoBuilder("web")), 0);

    EXPECT_EQ(recording::trace_ids(), (Ids{36, 65, 74}));
    EXPECT_EQ(slots_called(), (Ids{41, 45, 44}));
    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(PublishTest, a_name_that_is_empty_is_published_like_any_other) {
    EXPECT_EQ(publish(publisher, one_endpoint("")), 0);

    ASSERT_NE(element(""), nullptr);
    EXPECT_EQ(services_of(element("")).size(), 1u);
}

TEST_F(PublishTest, the_watchers_message_carries_name_handle_cookie_and_entry) {
    ds_client_reg_t *reg = watch(new_watcher(), "web", 0xfeed);
    ds_service_publish_info *info =
        new_info(one_endpoint("web", 2, 7).instance("a").roles(1, 2, 3));

    ds_db_publish_service(publisher->client_idx, local_node, info, nullptr);

    ASSERT_EQ(slots_called(), (Ids{41, 44}));
    const SentMessage &message = sent[1];
    EXPECT_EQ(message.client_hdl, 0x20u);
    EXPECT_EQ(message.name, "web");
    EXPECT_EQ(message.reg_handle, reg->handle);
    EXPECT_EQ(message.reg_cookie, 0xfeedu);
    EXPECT_EQ(message.message_presence, 7);
    EXPECT_EQ(message.info_presence, 5);
    ASSERT_EQ(message.entries.size(), 1u);
    EXPECT_EQ(message.entries[0].ep_addr, recording::encode_ip({10, 0, 0, 7}, 1000));
    EXPECT_EQ(message.entries[0].ep_addr_pointer, info->entries[0].ep_addr);
    EXPECT_EQ(message.entries[0].scope, 2u);
    EXPECT_EQ(message.entries[0].instance, "a");
    EXPECT_EQ(message.entries[0].attrs_count, 3u);
    EXPECT_EQ(message.entries[0].presence, 31);
    EXPECT_EQ(reg->creg_ver, 1u);
}

TEST_F(PublishTest, the_console_names_the_function_and_the_tag_of_each_line) {
    open_console();

    publish(publisher, one_endpoint("web", 1));

    const std::string text = console();
    EXPECT_NE(text.find("ds_db_handle_service_new"), std::string::npos);
    EXPECT_NE(text.find("[DS_PUBLISH_SERVICE/"), std::string::npos);
    EXPECT_NE(text.find("trace_endpoints"), std::string::npos);
    EXPECT_NE(text.find("ds_prepare_notif_message"), std::string::npos);
    EXPECT_EQ(call_order({"slot46"}).size(), 3u) << "one for the record, one for each sink";
}
