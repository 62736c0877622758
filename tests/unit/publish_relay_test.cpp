// Publishing with a relay reference, publishing in the restart periods, and placeholders that a
// client takes over.
#include "lifecycle_fixture.h"

namespace {

class PublishRelayTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        remote = new_node(1);
        recording::clear_calls();
    }

    // Asks the replay check; the info goes back to the fixture when no record took it.
    int check(ds_node_t *node, uint8_t &replayed) {
        const ds_dsr_service_ref_t ref = {0x77, 5};
        ds_service_elem_t *selem = element("web") != nullptr ? element("web") : new_element("web");
        recording::clear_calls();
        return ds_db_check_if_service_replayed_from_dsr(42, node, new_info(one_endpoint("web", 2)),
                                                        selem, &ref, &replayed);
    }

    // What a relay replay left of a service that the publisher had before the restart.
    ds_service_t *new_lost_service(const char *name, uint32_t scope = 2) {
        return new_placeholder(new_element(name), one_endpoint(name, scope), local_node,
                               publisher_pid);
    }

    ds_client_t *publisher = nullptr;
    ds_node_t *remote = nullptr;
};

} // namespace

// ---- deliveries outside the periods ----

TEST_F(PublishRelayTest, a_delivery_makes_a_remote_record_with_the_relays_id) {
    EXPECT_EQ(deliver(42, remote, one_endpoint("web", 2), 0x77, 9), 0);

    ds_service_t *service = newest("web");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->service_id, 0x77u);
    EXPECT_EQ(service->proc_id, 42u);
    EXPECT_EQ(service->pid, 42u);
    EXPECT_EQ(service->node, remote);
    EXPECT_EQ(service->gen, 1u) << "the relay's generation counts in restart periods only";
    EXPECT_EQ(service->prev_ver, 0u);
    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(db()->remote_services_added, 1u);
    EXPECT_EQ(element("web")->remote_services_added, 1u);
    EXPECT_EQ(element("web")->remote_change_count, 1u);
    EXPECT_EQ(remote->services_added, 1u);
}

TEST_F(PublishRelayTest, deliveries_log_the_remote_lines) {
    deliver(42, remote, one_endpoint("web", 2));
    deliver(42, remote, one_endpoint("web", 2));
    deliver(42, remote, one_endpoint("web", 2));

    const std::string head = "DSR->DS pub web@SYSTEM/gen:";
    EXPECT_EQ(texts(37), Lines{head + "1/ver:1/node[02:00:00:00:00:01] ...new remote service\n"});
    EXPECT_EQ(texts(32),
              (Lines{head + "1/ver:1/node[02:00:00:00:00:01] ...new remote service\n",
                     head + "2/ver:2/node[02:00:00:00:00:01] ...modified remote service\n"}));
}

TEST_F(PublishRelayTest, remote_services_are_not_sent_to_the_relay) {
    set_connected();

    deliver(42, remote, one_endpoint("web", 2));
    deliver(42, remote, one_endpoint("web", 2));

    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(newest("web")->gen, 2u);
}

TEST_F(PublishRelayTest, a_remote_publication_without_reference_needs_no_client) {
    EXPECT_EQ(ds_db_publish_service(42, remote, new_info(one_endpoint("web", 2)), nullptr), 0);

    EXPECT_EQ(recording::trace_ids()[0], 37u);
    EXPECT_EQ(newest("web")->service_id, db()->next_service_id - 1);
}

TEST_F(PublishRelayTest, a_delivery_for_the_local_node_is_published_without_client_and_sent) {
    set_connected();

    deliver(42, local_node, one_endpoint("web", 2), 0x77);
    deliver(42, local_node, one_endpoint("web", 2), 0x77);

    EXPECT_EQ(texts(37).size(), 1u);
    EXPECT_EQ(texts(32).size(), 1u);
    ASSERT_EQ(recording::sent_updates().size(), 2u);
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_ADD);
    EXPECT_EQ(recording::sent_updates()[1].operation, DSR_MODIFY);
    EXPECT_EQ(newest("web")->client_link.prev, nullptr);
}

TEST_F(PublishRelayTest, a_delivery_with_another_id_makes_another_record) {
    deliver(42, remote, one_endpoint("web", 2), 0x77);

    deliver(42, remote, one_endpoint("web", 2), 0x78);

    EXPECT_EQ(services_of(element("web")).size(), 2u);
}

TEST_F(PublishRelayTest, the_id_0_takes_the_next_local_number) {
    const uint32_t next = db()->next_service_id;

    deliver(42, remote, one_endpoint("web", 2), 0);

    EXPECT_EQ(newest("web")->service_id, next);
}

TEST_F(PublishRelayTest, nodes_without_a_record_print_unknown_and_count_nothing) {
    for (const uintptr_t id : {0u, 1u, 127u}) {
        recording::clear_calls();
        const std::string name = "svc" + std::to_string(id);

        EXPECT_EQ(deliver(42, unrecorded_node(id), one_endpoint(name, 2)), 0);
        EXPECT_EQ(deliver(42, unrecorded_node(id), one_endpoint(name, 2)), 0);

        ASSERT_EQ(texts(37).size(), 1u);
        EXPECT_NE(texts(37)[0].find("node[UNKNOWN]"), std::string::npos);
        EXPECT_EQ(newest(name)->gen, 2u);
        EXPECT_EQ(newest(name)->node, unrecorded_node(id));
    }
}

// ---- the replay check ----

TEST_F(PublishRelayTest, without_timers_nothing_is_a_replay) {
    uint8_t replayed = 9;

    EXPECT_EQ(check(remote, replayed), 0);

    EXPECT_EQ(replayed, 0);
    EXPECT_TRUE(recording::traces().empty());
}

TEST_F(PublishRelayTest, stopped_timers_are_asked_own_first_and_open_no_period) {
    set_own_timer(false);
    set_relay_timer(false);
    uint8_t replayed = 9;

    EXPECT_EQ(check(local_node, replayed), 0);

    EXPECT_EQ(replayed, 0);
    EXPECT_EQ(call_order({"mgd_timer"}),
              (Lines{"mgd_timer_leaf_running(own) = 0", "mgd_timer_leaf_running(relay) = 0"}));
}

TEST_F(PublishRelayTest, in_the_own_period_a_delivery_for_this_node_is_resolved) {
    set_own_timer();
    set_relay_timer();
    uint8_t replayed = 0;

    EXPECT_EQ(check(local_node, replayed), 0);

    EXPECT_EQ(replayed, 1);
    EXPECT_EQ(call_order({"mgd_timer"}), Lines{"mgd_timer_leaf_running(own) = 1"});
    EXPECT_EQ(recording::trace_ids(), (Ids{8, 14}));
}

TEST_F(PublishRelayTest, in_the_own_period_a_delivery_for_another_node_is_not) {
    set_own_timer();
    set_relay_timer(false);
    uint8_t replayed = 9;

    EXPECT_EQ(check(remote, replayed), 0);

    EXPECT_EQ(replayed, 0);
    EXPECT_EQ(call_order({"mgd_timer"}),
              (Lines{"mgd_timer_leaf_running(own) = 1", "mgd_timer_leaf_running(relay) = 0"}));
}

TEST_F(PublishRelayTest, in_the_relay_period_every_delivery_is_resolved) {
    set_relay_timer();
    for (ds_node_t *node : {remote, local_node}) {
        uint8_t replayed = 0;

        EXPECT_EQ(check(node, replayed), 0);

        EXPECT_EQ(replayed, 1);
    }
    EXPECT_EQ(services_of(element("web")).size(), 2u);
}

TEST_F(PublishRelayTest, the_replay_check_fails_without_its_arguments) {
    const ds_dsr_service_ref_t ref = {1, 1};
    ds_service_elem_t *selem = new_element("web");
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    uint8_t replayed = 9;
    const auto ask = ds_db_check_if_service_replayed_from_dsr;

    EXPECT_EQ(ask(1, remote, nullptr, selem, &ref, &replayed), -1);
    EXPECT_EQ(ask(1, remote, info, nullptr, &ref, &replayed), -1);
    EXPECT_EQ(ask(1, remote, info, selem, nullptr, &replayed), -1);
    EXPECT_EQ(ask(1, remote, info, selem, &ref, nullptr), -1);
    EXPECT_EQ(replayed, 9);
}

TEST_F(PublishRelayTest, a_resolved_delivery_is_neither_sent_nor_announced) {
    set_own_timer();
    set_connected();
    watch(new_watcher(), "web");
    recording::clear_calls();

    EXPECT_EQ(deliver(publisher_pid, local_node, one_endpoint("web", 2), 0x77, 9), 0);

    EXPECT_EQ(recording::trace_ids(), (Ids{8, 14}));
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(newest("web")->gen, 9u);
    EXPECT_EQ(newest("web")->proc_id, 1u);
}

TEST_F(PublishRelayTest, a_resolver_that_fails_is_reported_and_its_result_returned) {
    set_relay_timer();
    new_element("web");
    recording::clear_calls();
    recording::fail("chunk_malloc");

    EXPECT_EQ(deliver(42, remote, one_endpoint("web", 2)), -1);

    EXPECT_EQ(recording::trace_ids(), (Ids{8, 12, 43}));
    EXPECT_EQ(texts(43), Lines{"publish service web failed., "
                               "ds_db_check_if_service_replayed_from_dsr failed\n"});
    EXPECT_EQ(newest("web"), nullptr);
}

// ---- clients in the own restart period ----

TEST_F(PublishRelayTest, in_the_own_period_a_new_service_is_marked_and_not_sent) {
    set_own_timer();
    set_connected();

    EXPECT_EQ(publish(publisher, one_endpoint("web", 2)), 0);

    EXPECT_EQ(newest("web")->flags, 2u);
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(recording::trace_ids(), (Ids{35, 15, 16, 36, 62, 65}));
    EXPECT_EQ(texts(35), Lines{"[DS]: resolve service entry to dsr's\n"});
}

TEST_F(PublishRelayTest, in_the_own_period_a_change_is_marked_and_no_longer_confirmed) {
    publish(publisher, one_endpoint("web", 2));
    newest("web")->flags = DS_SERVICE_FLAG_DSR_CONFIRMED;
    set_own_timer();
    set_connected();

    EXPECT_EQ(publish(publisher, one_endpoint("web", 2)), 0);

    EXPECT_EQ(newest("web")->flags, 2u);
    EXPECT_EQ(newest("web")->gen, 2u);
    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(PublishRelayTest, in_the_own_period_a_remote_change_keeps_its_flags) {
    deliver(42, remote, one_endpoint("web", 2));
    newest("web")->flags = DS_SERVICE_FLAG_DSR_CONFIRMED;
    set_own_timer();

    deliver(42, remote, one_endpoint("web", 2));

    EXPECT_EQ(newest("web")->flags, 1u);
    EXPECT_EQ(newest("web")->gen, 2u);
}

TEST_F(PublishRelayTest, each_scope_asks_the_own_timer_its_number_of_times) {
    set_own_timer(false);
    const struct {
        uint32_t scope;
        size_t when_new;
        size_t when_changed;
    } rows[] = {{0, 1, 1}, {1, 2, 2}, {2, 2, 2}, {3, 0, 1}};
    for (const auto &row : rows) {
        const std::string name = "svc" + std::to_string(row.scope);
        recording::clear_calls();
        publish(publisher, one_endpoint(name, row.scope));
        EXPECT_EQ(timer_questions("own"), row.when_new) << "new, scope " << row.scope;

        recording::clear_calls();
        publish(publisher, one_endpoint(name, row.scope));
        EXPECT_EQ(timer_questions("own"), row.when_changed) << "changed, scope " << row.scope;
    }
}

TEST_F(PublishRelayTest, a_remote_publication_asks_the_own_timer_in_the_replay_check_only) {
    set_own_timer(false);

    deliver(42, remote, one_endpoint("web", 2));
    EXPECT_EQ(timer_questions("own"), 1u);

    deliver(42, remote, one_endpoint("web", 2));
    EXPECT_EQ(timer_questions("own"), 2u);
}

TEST_F(PublishRelayTest, in_the_own_period_scope_none_is_resolved_and_scope_local_is_not) {
    set_own_timer();

    publish(publisher, one_endpoint("none", 0));
    publish(publisher, one_endpoint("local", 3));

    EXPECT_EQ(newest("none")->flags, 2u);
    EXPECT_EQ(newest("local")->flags, 0u);
    EXPECT_EQ(texts(35).size(), 1u);
}

TEST_F(PublishRelayTest, a_stopped_own_timer_opens_no_period) {
    set_own_timer(false);
    set_connected();

    publish(publisher, one_endpoint("web", 2));
    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(newest("web")->flags, 0u);
    EXPECT_EQ(recording::sent_updates().size(), 2u);
    EXPECT_TRUE(texts(35).empty());
}

// ---- a client takes a placeholder over ----

TEST_F(PublishRelayTest, a_republished_placeholder_becomes_the_clients_own) {
    ds_service_t *service = new_lost_service("web");
    set_own_timer();

    EXPECT_EQ(publish(publisher, one_endpoint("web", 2)), 0);

    ASSERT_EQ(services_of(element("web")), std::vector<ds_service_t *>{service});
    EXPECT_EQ(service->proc_id, publisher->client_idx);
    EXPECT_EQ(service->pid, 100u);
    EXPECT_EQ(service->service_id, 0x77u);
    EXPECT_EQ(service->gen, 6u);
    EXPECT_EQ(service->flags, 2u);
    EXPECT_EQ(services_of(publisher), std::vector<ds_service_t *>{service});
    EXPECT_EQ(texts(5), Lines{"[DS]: <<-Link service for client:0x10"});
}

TEST_F(PublishRelayTest, a_takeover_by_another_process_carries_the_new_pid) {
    ds_service_t *service =
        new_placeholder(new_element("web"), one_endpoint("web", 2), local_node, 999);
    set_own_timer();

    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(service->pid, 100u);
    EXPECT_EQ(service->proc_id, publisher->client_idx);
}

TEST_F(PublishRelayTest, a_takeover_is_announced_at_once_and_not_as_a_deletion) {
    new_lost_service("web");
    watch(new_watcher(), "web");
    set_own_timer();
    forget_calls();

    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(told()[0].entries.size(), 1u);
}

TEST_F(PublishRelayTest, a_taken_over_service_stands_once_in_its_clients_list) {
    ds_service_t *service = new_lost_service("web");
    set_own_timer();
    publish(publisher, one_endpoint("web", 2));

    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(service->gen, 7u);
    EXPECT_EQ(services_of(publisher), std::vector<ds_service_t *>{service});
    EXPECT_EQ(texts(5).size(), 1u);
}

TEST_F(PublishRelayTest, a_taken_over_service_can_be_withdrawn) {
    new_lost_service("web");
    set_own_timer();
    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(withdraw(publisher, "web", 2), 0);

    EXPECT_EQ(element("web"), nullptr);
    EXPECT_TRUE(services_of(publisher).empty());
    EXPECT_EQ(db()->local_services_deleted, 1u);
}

TEST_F(PublishRelayTest, a_taken_over_service_goes_with_its_client) {
    new_lost_service("web");
    set_own_timer();
    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(ds_db_delete_client(publisher), 0);

    EXPECT_EQ(element("web"), nullptr);
}

TEST_F(PublishRelayTest, a_change_without_a_client_leaves_a_placeholder_one) {
    ds_service_t *service = new_lost_service("web");

    EXPECT_EQ(deliver(publisher_pid, local_node, one_endpoint("web", 2), 0x77), 0);

    EXPECT_EQ(service->proc_id, 1u);
    EXPECT_EQ(service->gen, 6u);
    EXPECT_TRUE(texts(5).empty());
}

TEST_F(PublishRelayTest, a_takeover_whose_update_fails_leaves_a_placeholder) {
    ds_service_t *service = new_lost_service("web");
    set_own_timer();
    ds_service_publish_info *info = new_info(one_endpoint("web", 2));
    info->borrowed = 1;
    recording::fail("malloc");

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, info, nullptr), 0);

    EXPECT_EQ(service->proc_id, 1u);
    EXPECT_TRUE(services_of(publisher).empty());
    info->borrowed = 0;
}

TEST_F(PublishRelayTest, in_the_relay_period_only_the_placeholders_own_process_takes_it_over) {
    // The match compares the client index with the pid of the placeholder.
    ds_service_t *service = new_placeholder(new_element("web"), one_endpoint("web", 2), local_node,
                                            publisher->client_idx);
    ds_client_t *other = new_client(0x30, 300);
    set_relay_timer();

    publish(other, one_endpoint("web", 2));
    EXPECT_EQ(services_of(element("web")).size(), 2u);
    EXPECT_EQ(service->proc_id, 1u);

    publish(publisher, one_endpoint("web", 2));
    EXPECT_EQ(services_of(element("web")).size(), 2u);
    EXPECT_EQ(service->proc_id, publisher->client_idx);
}

// ---- the two halves called directly ----

TEST_F(PublishRelayTest, making_a_new_service_fails_without_its_arguments) {
    ds_service_elem_t *selem = new_element("web");
    ds_service_publish_info *info = new_info(one_endpoint("web"));

    EXPECT_EQ(ds_db_handle_service_new(11, local_node, nullptr, selem, publisher, 0), -1);
    EXPECT_EQ(ds_db_handle_service_new(11, local_node, info, nullptr, publisher, 0), -1);
    forget_database();
    EXPECT_EQ(ds_db_handle_service_new(11, local_node, info, selem, publisher, 0), -1);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_EQ(info->held, 0);
}

TEST_F(PublishRelayTest, changing_a_service_fails_without_its_arguments) {
    ds_service_elem_t *selem = new_element("web");
    ds_service_t *service = new_service(selem, one_endpoint("web"), publisher);
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    const auto change = ds_db_handle_service_modified;
    recording::clear_calls();

    EXPECT_EQ(change(nullptr, info, local_node, selem, publisher), -1);
    EXPECT_EQ(change(service, nullptr, local_node, selem, publisher), -1);
    EXPECT_EQ(change(service, info, local_node, nullptr, publisher), -1);
    forget_database();
    EXPECT_EQ(change(service, info, local_node, selem, publisher), -1);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_EQ(service->gen, 1u);
}

TEST_F(PublishRelayTest, publishing_the_very_info_that_is_held_raises_the_generation_only) {
    publish(publisher, one_endpoint("web", 1));
    ds_service_t *service = newest("web");
    ds_service_publish_info *held = service->publish_info;

    EXPECT_EQ(ds_db_publish_service(publisher->client_idx, local_node, held, nullptr), 0);

    EXPECT_EQ(service->publish_info, held);
    EXPECT_EQ(service->gen, 2u);
}
