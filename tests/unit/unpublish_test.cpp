// Withdrawal and departure: what is removed, logged, sent and told, in which order.
#include "lifecycle_fixture.h"

namespace {

class UnpublishTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        remote = new_node(1);
        recording::clear_calls();
    }

    int withdraw_from_relay(uint32_t pid, ds_node_t *node, const ds_service_key_t &key,
                            uint32_t id) {
        const ds_dsr_service_ref_t ref = {id, 1};
        return ds_db_unpublish_service(pid, node, &key, &ref);
    }

    ds_client_t *publisher = nullptr;
    ds_node_t *remote = nullptr;
};

} // namespace

// ---- refusals ----

TEST_F(UnpublishTest, without_a_key_it_fails_and_does_nothing) {
    EXPECT_EQ(ds_db_unpublish_service(11, local_node, nullptr, nullptr), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(UnpublishTest, without_a_database_it_fails_and_does_nothing) {
    const ds_service_key_t key = key_for("web");
    forget_database();

    EXPECT_EQ(ds_db_unpublish_service(11, local_node, &key, nullptr), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(UnpublishTest, without_a_name_it_is_refused) {
    const ds_service_key_t key = key_for(nullptr);

    EXPECT_EQ(ds_db_unpublish_service(11, local_node, &key, nullptr), -1);

    EXPECT_EQ(texts(45), Lines{"[DS]: ds_db_delete service failed, name not specified\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{45});
}

TEST_F(UnpublishTest, an_unknown_local_client_is_refused_and_nothing_changes) {
    publish(publisher, one_endpoint("web", 2));
    const ds_service_key_t key = key_for("web");
    recording::clear_calls();

    EXPECT_EQ(ds_db_unpublish_service(99, local_node, &key, nullptr), -1);

    EXPECT_EQ(texts(46), Lines{"[DS]: ds_db_delete_service for web, client not found\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{46});
    EXPECT_EQ(services_of(element("web")).size(), 1u);
}

TEST_F(UnpublishTest, a_local_withdrawal_with_relay_reference_needs_a_client_too) {
    publish(publisher, one_endpoint("web", 2));
    recording::clear_calls();

    EXPECT_EQ(withdraw_from_relay(99, local_node, key_for("web"), 0), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{46});
}

TEST_F(UnpublishTest, a_name_without_element_is_not_found) {
    EXPECT_EQ(withdraw(publisher, "web"), -1);

    EXPECT_EQ(texts(47), Lines{"[DS]: ds_db_delete service failed, service elem not found\n"});
}

TEST_F(UnpublishTest, an_element_without_a_matching_record_is_not_found_either) {
    ds_client_t *other = new_client(0x30, 300);
    publish(publisher, one_endpoint("web", 1).instance("a"));
    recording::clear_calls();

    EXPECT_EQ(withdraw(other, "web"), -1) << "another client";
    EXPECT_EQ(withdraw(publisher, "web", 2), -1) << "another scope";
    EXPECT_EQ(withdraw(publisher, "web", 1, "b"), -1) << "another instance";
    EXPECT_EQ(withdraw_from_relay(publisher->client_idx, local_node, key_for("web"), 0x99), -1)
        << "another id";

    EXPECT_EQ(recording::trace_ids(), (Ids{47, 47, 47, 47}));
    EXPECT_EQ(services_of(element("web")).size(), 1u);
}

// ---- what is matched ----

TEST_F(UnpublishTest, without_an_instance_the_newest_record_goes) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    publish(publisher, one_endpoint("web", 1).instance("b"));

    EXPECT_EQ(withdraw(publisher, "web", 1), 0);

    ASSERT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_STREQ(newest("web")->instance, "a");
}

TEST_F(UnpublishTest, with_an_instance_that_record_goes) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    publish(publisher, one_endpoint("web", 1).instance("b"));

    EXPECT_EQ(withdraw(publisher, "web", 1, "a"), 0);

    ASSERT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_STREQ(newest("web")->instance, "b");
}

TEST_F(UnpublishTest, an_instance_whose_bit_is_clear_is_not_read) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    ds_service_key_t key = key_for("web", 1);
    char instance[] = "b";
    key.instance = instance;

    EXPECT_EQ(ds_db_unpublish_service(publisher->client_idx, local_node, &key, nullptr), 0);
}

TEST_F(UnpublishTest, the_scope_is_read_without_its_bit) {
    publish(publisher, one_endpoint("web", 1));
    ds_service_key_t key = key_for("web", 2);
    VIDL_CLR_BIT(&key, DS_KEY_BIT_SCOPE);

    EXPECT_EQ(ds_db_unpublish_service(publisher->client_idx, local_node, &key, nullptr), -1);
}

TEST_F(UnpublishTest, a_remote_withdrawal_matches_node_process_and_id) {
    deliver(42, remote, one_endpoint("web", 2), 0x77);
    deliver(42, new_node(2), one_endpoint("web", 2), 0x77);
    recording::clear_calls();

    EXPECT_EQ(withdraw_from_relay(43, remote, key_for("web", 2), 0x77), -1);
    EXPECT_EQ(withdraw_from_relay(42, remote, key_for("web", 2), 0x78), -1);
    EXPECT_EQ(withdraw_from_relay(42, remote, key_for("web", 2), 0x77), 0);

    ASSERT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_NE(newest("web")->node, remote);
}

TEST_F(UnpublishTest, services_of_a_node_without_record_can_be_withdrawn) {
    for (const uintptr_t id : {1u, 127u}) {
        deliver(42, unrecorded_node(id), one_endpoint("web", 2), 0x77);
        recording::clear_calls();

        EXPECT_EQ(withdraw_from_relay(42, unrecorded_node(id), key_for("web"), 0x77), 0);

        EXPECT_EQ(texts(28), Lines{"DSR->DS delete web@SYSTEM/gen:1 node[UNKNOWN] ...deleted "
                                   "remote service\n"});
    }
}

TEST_F(UnpublishTest, the_node_id_0_matches_any_node) {
    deliver(42, remote, one_endpoint("web", 2), 0x77);

    EXPECT_EQ(withdraw_from_relay(42, unrecorded_node(0), key_for("web", 2), 0x77), 0);

    EXPECT_EQ(element("web"), nullptr);
}

// ---- what happens ----

TEST_F(UnpublishTest, a_withdrawal_is_logged_sent_removed_and_told_in_that_order) {
    set_connected();
    watch(new_watcher(), "web");
    publish(publisher, one_endpoint("web", 2).instance("a"));
    const std::string id = std::to_string(newest("web")->service_id);
    recording::clear_calls();

    EXPECT_EQ(withdraw(publisher, "web", 2, "a"), 0);

    EXPECT_EQ(
        recording::joined(steps()),
        recording::joined({"avl_search(db.selem_tree) = selem#1",
                           "slot46(0x10)",
                           "rtrace_internal(pub, 27)",
                           "rtrace_internal(pub, 58)",
                           "rtrace_internal(pub, 59)",
                           "malloc(1)",
                           "vidl_ds_service_attrs_encode_ext(0, 0)",
                           "fts_get_stamp_fast()",
                           "dsr_dsc_send_update(3, \"web\", " + id + ", \"a\", 2, 100, 1, 9, 0, 0)",
                           "rtrace_internal(pub, 76)",
                           "rtrace_internal(pub, 62)",
                           "free()",
                           "fts_get_stamp_fast()",
                           "vidl_ds_service_publish_info_free_ext(0)",
                           "free()",
                           "free()",
                           "free()",
                           "free()",
                           "free()",
                           "dbly_linkage_delink(service#1.client_link)",
                           "dbly_linkage_delink(service#1.selem_link)",
                           "chunk_free(service, service#1)",
                           "free()",
                           "slot41(web, 0 entries)",
                           "fts_get_stamp_fast()",
                           "fts_get_stamp_fast()",
                           "slot46(0x20)",
                           "rtrace_internal(notif, 74)",
                           "slot45(0x20, handle 1, web, 0 entries)",
                           "slot44(0x20, handle 1, web, 0 entries)"}));
}

TEST_F(UnpublishTest, the_last_service_takes_the_unwatched_element_with_it) {
    publish(publisher, one_endpoint("web", 3));
    recording::clear_calls();

    withdraw(publisher, "web");

    EXPECT_EQ(element("web"), nullptr);
    EXPECT_EQ(recording::trace_ids(), (Ids{27, 58, 59, 29}));
    EXPECT_EQ(texts(27), Lines{"CLIENT[pid:100/0x10]->DS delete web@LOCAL/gen:1 "
                               "node[02:00:00:00:00:ff] ...deleted service\n"});
    EXPECT_EQ(texts(29), Lines{"[DS]: <<-- pid 100 [0x10] ...Deleted service elem:web"});
    const Lines end = call_order({"slot41", "avl_delete", "chunk_free"});
    EXPECT_EQ(end, (Lines{"chunk_free(service, service#1)", "slot41(web, 0 entries)",
                          "avl_delete(db.selem_tree, selem#1)", "chunk_free(selem, selem#1)"}));
}

TEST_F(UnpublishTest, a_remote_withdrawal_logs_the_remote_lines_and_is_not_sent) {
    set_connected();
    deliver(42, remote, one_endpoint("web", 2), 0x77);
    newest("web")->prev_ver = 1;
    recording::clear_calls();

    EXPECT_EQ(withdraw_from_relay(42, remote, key_for("web", 2), 0x77), 0);

    EXPECT_EQ(recording::trace_ids(), (Ids{28, 58, 59, 30}));
    EXPECT_EQ(texts(28), Lines{"DSR->DS delete web@SYSTEM/gen:1 node[02:00:00:00:00:01] "
                               "...deleted remote service\n"});
    EXPECT_EQ(texts(30), Lines{"[DS]:...Deleted service elem:web"});
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(db()->remote_services_deleted, 1u);
    EXPECT_EQ(remote->services_deleted, 1u);
}

TEST_F(UnpublishTest, an_element_with_a_registration_survives_its_last_service) {
    watch(new_watcher(), "web");
    publish(publisher, one_endpoint("web", 3));
    recording::set_stamp(7000);

    withdraw(publisher, "web");

    ASSERT_NE(element("web"), nullptr);
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(element("web")->selem_version, 2u);
    EXPECT_EQ(element("web")->last_delete_time, 7000u);
    EXPECT_EQ(element("web")->last_modify_time, 7000u);
    EXPECT_EQ(element("web")->local_services_deleted, 1u);
    EXPECT_EQ(db()->local_services_deleted, 1u);
    EXPECT_EQ(publisher->services_deleted, 1u);
    EXPECT_EQ(publisher->last_activity_time, 7000u);
    EXPECT_EQ(local_node->services_deleted, 1u);
}

TEST_F(UnpublishTest, an_element_with_another_service_survives_and_its_rest_is_told) {
    watch(new_watcher(), "web");
    publish(publisher, one_endpoint("web", 3, 1).instance("a"));
    publish(publisher, one_endpoint("web", 3, 2).instance("b"));
    forget_calls();

    withdraw(publisher, "web", 3, "a");

    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    ASSERT_EQ(told()[0].entries.size(), 1u);
    EXPECT_EQ(told()[0].entries[0].instance, "b");
}

TEST_F(UnpublishTest, a_service_without_endpoints_goes_silently) {
    set_connected();
    ds_client_reg_t *reg = watch(new_watcher(), "web");
    publish(publisher, PublishInfoBuilder("web"));
    newest("web")->prev_ver = 1;
    const uint64_t seen = reg->creg_ver;
    forget_calls();

    EXPECT_EQ(withdraw(publisher, "web"), 0);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(reg->creg_ver, seen);
    EXPECT_EQ(element("web")->selem_version, 2u);
}

TEST_F(UnpublishTest, the_silent_removal_logs_only_the_end_of_the_element) {
    publish(publisher, PublishInfoBuilder("web"));
    recording::clear_calls();
    withdraw(publisher, "web");
    EXPECT_EQ(recording::trace_ids(), Ids{25});
    EXPECT_EQ(texts(25), Lines{"[DS]: <<-- pid 100 [0x10] ...Deleted service elem:web"});

    deliver(42, remote, PublishInfoBuilder("web"), 0x77);
    recording::clear_calls();
    withdraw_from_relay(42, remote, key_for("web"), 0x77);
    EXPECT_EQ(recording::trace_ids(), Ids{26});
    EXPECT_EQ(texts(26), Lines{"[DS]:...Deleted service elem:web"});
    EXPECT_EQ(element("web"), nullptr);
}

TEST_F(UnpublishTest, only_scopes_rack_and_system_are_withdrawn_from_the_relay) {
    set_connected();
    const std::pair<uint32_t, size_t> scopes[] = {{0, 0}, {1, 1}, {2, 1}, {3, 0}};
    for (const auto &[scope, updates] : scopes) {
        publish(publisher, one_endpoint("web", scope));
        newest("web")->prev_ver = 1;
        recording::clear_calls();

        withdraw(publisher, "web", scope);

        EXPECT_EQ(recording::sent_updates().size(), updates) << "scope " << scope;
    }
}

TEST_F(UnpublishTest, the_scope_of_the_current_info_decides_whether_the_relay_is_told) {
    set_connected();
    publish(publisher, one_endpoint("web", 2));
    publish(publisher, one_endpoint("web", 0));
    recording::clear_calls();

    EXPECT_EQ(withdraw(publisher, "web", 2), 0);

    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(UnpublishTest, the_own_restart_period_does_not_hold_a_withdrawal_back) {
    set_connected();
    publish(publisher, one_endpoint("web", 2));
    set_own_timer();
    recording::clear_calls();

    withdraw(publisher, "web", 2);

    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_DELETE);
    EXPECT_EQ(timer_questions("own"), 0u);
}

TEST_F(UnpublishTest, a_service_that_the_relay_never_heard_of_is_not_withdrawn_from_it) {
    publish(publisher, one_endpoint("web", 2));
    set_connected();

    EXPECT_EQ(withdraw(publisher, "web", 2), 0);

    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(UnpublishTest, a_placeholder_goes_without_moving_version_or_counters) {
    ds_service_elem_t *selem = new_element("web");
    new_placeholder(selem, one_endpoint("web", 2), local_node, 555);
    ds_client_reg_t *reg = watch(new_watcher(), "web");
    ds_notify(selem);
    forget_calls();

    EXPECT_EQ(withdraw(publisher, "web", 2), 0) << "any local client may withdraw it";

    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(slots_called(), Ids{41}) << "the registration has seen this version";
    EXPECT_EQ(reg->creg_ver, selem->selem_version);
    EXPECT_EQ(db()->local_services_deleted, 0u);
    EXPECT_EQ(publisher->services_deleted, 0u);
}

// ---- departure ----

TEST_F(UnpublishTest, a_departing_client_takes_each_of_its_services_down) {
    publish(publisher, one_endpoint("web", 3).instance("a"));
    publish(publisher, one_endpoint("web", 3).instance("b"));
    publish(publisher, one_endpoint("db", 3));
    recording::clear_calls();

    ds_db_delete_client(publisher);

    EXPECT_EQ(texts(27).size(), 3u);
    EXPECT_EQ(texts(29), (Lines{"[DS]: <<-- pid 100 [0x10] ...Deleted service elem:db",
                                "[DS]: <<-- pid 100 [0x10] ...Deleted service elem:web"}));
    EXPECT_EQ(db()->selem_tree.count, 0u);
    EXPECT_EQ(db()->local_services_deleted, 3u);
}

TEST_F(UnpublishTest, a_departing_client_is_not_told_of_its_own_services_going) {
    watch(publisher, "web");
    publish(publisher, one_endpoint("web", 3));
    forget_calls();

    ds_db_delete_client(publisher);

    EXPECT_EQ(slots_called(), Ids{41});
}

TEST_F(UnpublishTest, a_departure_tells_watchers_and_the_relay_once_for_each_service) {
    set_connected();
    watch(new_watcher(), "web");
    publish(publisher, one_endpoint("web", 2).instance("a"));
    publish(publisher, one_endpoint("web", 2).instance("b"));
    forget_calls();

    ds_db_delete_client(publisher);

    EXPECT_EQ(recording::sent_updates().size(), 2u);
    EXPECT_EQ(slots_called(), (Ids{41, 44, 41, 45, 44}));
}

// ---- service down called directly ----

TEST_F(UnpublishTest, taking_down_nothing_does_nothing) {
    ds_service_t without_element{};

    ds_db_handle_service_down(nullptr, publisher);
    ds_db_handle_service_down(&without_element, publisher);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(UnpublishTest, taking_down_without_a_database_does_nothing) {
    publish(publisher, one_endpoint("web"));
    ds_service_t *service = newest("web");
    forget_calls();
    forget_database();

    ds_db_handle_service_down(service, publisher);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(UnpublishTest, the_console_names_service_down_for_its_lines) {
    publish(publisher, one_endpoint("web"));
    open_console();

    withdraw(publisher, "web");

    EXPECT_NE(console().find("ds_db_handle_service_down"), std::string::npos);
    EXPECT_NE(console().find("[DS_DELETED_SERVICE/"), std::string::npos);
    EXPECT_NE(console().find("[DS_DELETED_SERVICE_ELEM_3/"), std::string::npos);
}
