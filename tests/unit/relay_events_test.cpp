// The relay connects, goes away, or reports a node down.
#include "lifecycle_fixture.h"

namespace {

class RelayEventsTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        remote = new_node(1);
        recording::clear_calls();
    }

    mgd_timer_t *relay_timer() const {
        return reinterpret_cast<mgd_timer_t *>(globals.slot[DS_GLOBAL_SLOT_RELAY_RESTART_TIMER]);
    }

    static uint64_t id_of(const ds_node_t *node) { return reinterpret_cast<uint64_t>(node); }

    ds_client_t *publisher = nullptr;
    ds_node_t *remote = nullptr;
};

const uint8_t remote_address[6] = {2, 0, 0, 0, 0, 1};
const uint8_t local_address[6] = {2, 0, 0, 0, 0, 0xff};

} // namespace

// ---- connect ----

TEST_F(RelayEventsTest, a_connect_sets_the_flag_and_sends_all_local_services) {
    publish(publisher, one_endpoint("web", 2).instance("a"));
    publish(publisher, one_endpoint("web", 1).instance("b"));
    publish(publisher, one_endpoint("local", 3));
    recording::clear_calls();

    EXPECT_EQ(dsr_connect_cb(), 0);

    EXPECT_TRUE(is_connected());
    EXPECT_EQ(recording::trace_ids(), (Ids{82, 83, 76, 62, 76, 62}));
    EXPECT_EQ(texts(82), Lines{"[DS]: DSR is connected\n"});
    EXPECT_EQ(texts(83), Lines{"[DS]: remote send all entries to DSR\n"});
    ASSERT_EQ(recording::sent_updates().size(), 2u);
    EXPECT_EQ(recording::sent_updates()[0].instance, "b");
    EXPECT_EQ(recording::sent_updates()[1].instance, "a");
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_ADD);
    EXPECT_EQ(newest("web")->prev_ver, 1u);
}

TEST_F(RelayEventsTest, a_connect_writes_one_byte_of_its_slot) {
    globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED] = 0x1122334455667700;

    dsr_connect_cb();

    EXPECT_EQ(globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED], 0x1122334455667701u);
}

TEST_F(RelayEventsTest, a_reconnect_sends_additions_again) {
    set_connected();
    publish(publisher, one_endpoint("web", 2));
    publish(publisher, one_endpoint("web", 2));
    recording::clear_calls();

    dsr_connect_cb();

    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_ADD);
    EXPECT_EQ(recording::sent_updates()[0].version, 2u);
}

TEST_F(RelayEventsTest, a_connect_in_the_relay_period_starts_it_again_for_40_seconds) {
    mgd_timer_t *timer = set_relay_timer();

    EXPECT_EQ(dsr_connect_cb(), 0);

    EXPECT_EQ(steps(), (Lines{"mgd_timer_leaf_running(relay) = 1", "mgd_timer_leaf_stop(relay)",
                              "rtrace_internal(main, 81)", "mgd_timer_leaf_start(relay, 40, 0)",
                              "rtrace_internal(main, 82)", "rtrace_internal(main, 83)",
                              "avl_walk(db.selem_tree)"}));
    char text[64];
    snprintf(text, sizeof text, "[%p] dsr restart timer start", static_cast<void *>(timer));
    EXPECT_EQ(texts(81), Lines{text});
    EXPECT_TRUE(recording::is_running(timer));
}

TEST_F(RelayEventsTest, a_connect_leaves_an_expired_relay_timer_alone) {
    set_relay_timer(false);

    dsr_connect_cb();

    EXPECT_EQ(call_order({"mgd_timer"}), Lines{"mgd_timer_leaf_running(relay) = 0"});
    EXPECT_TRUE(texts(81).empty());
}

TEST_F(RelayEventsTest, a_connect_in_the_own_period_sends_nothing) {
    publish(publisher, one_endpoint("web", 2));
    newest("web")->prev_ver = 4;
    set_own_timer();
    recording::clear_calls();

    EXPECT_EQ(dsr_connect_cb(), 0);

    EXPECT_TRUE(is_connected());
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(newest("web")->prev_ver, 4u);
    EXPECT_EQ(recording::trace_ids(), Ids{82});
}

TEST_F(RelayEventsTest, a_connect_in_both_periods_prolongs_and_sends_nothing) {
    publish(publisher, one_endpoint("web", 2));
    set_own_timer();
    set_relay_timer();
    recording::clear_calls();

    dsr_connect_cb();

    EXPECT_EQ(recording::trace_ids(), (Ids{81, 82}));
    EXPECT_EQ(call_order({"mgd_timer"}),
              (Lines{"mgd_timer_leaf_running(relay) = 1", "mgd_timer_leaf_stop(relay)",
                     "mgd_timer_leaf_start(relay, 40, 0)", "mgd_timer_leaf_running(own) = 1"}));
    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(RelayEventsTest, a_stopped_own_timer_does_not_hold_the_services_back) {
    publish(publisher, one_endpoint("web", 2));
    set_own_timer(false);
    recording::clear_calls();

    dsr_connect_cb();

    EXPECT_EQ(recording::sent_updates().size(), 1u);
}

// ---- disconnect ----

TEST_F(RelayEventsTest, a_disconnect_marks_remote_services_and_starts_30_seconds) {
    set_connected();
    deliver(42, remote, one_endpoint("web", 2));
    publish(publisher, one_endpoint("web", 2));
    ds_service_t *near = newest("web");
    ds_service_t *far = services_of(element("web"))[1];
    mgd_timer_t *parent = recording::new_timer("parent");
    globals.slot[DS_GLOBAL_SLOT_TIMER_PARENT] = reinterpret_cast<uint64_t>(parent);
    globals.slot[DS_GLOBAL_SLOT_TIMER_CONTEXT] = 0xbeef;
    forget_calls();

    EXPECT_EQ(dsr_disconn_cb(), 0);

    EXPECT_FALSE(is_connected());
    EXPECT_EQ(far->flags, 2u);
    EXPECT_EQ(near->flags, 0u);
    EXPECT_EQ(texts(84), Lines{"[DS]: DSR dis-connected, what gives ?\n"});
    EXPECT_EQ(texts(49), Lines{"[DS]: adding marker to remote services "});
    Lines lines = steps();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "rtrace_internal(err, 84)");
    EXPECT_EQ(lines[1], "rtrace_internal(pub, 49)");
    EXPECT_EQ(lines[2], "avl_walk(db.selem_tree)");
    EXPECT_EQ(lines[3], "mgd_timer_leaf_new(parent, 48879, 0, 0)");
    EXPECT_EQ(lines[4].substr(0, 21), "mgd_timer_leaf_start(");
    ASSERT_NE(relay_timer(), nullptr);
    EXPECT_EQ(recording::started_with(relay_timer()).seconds, 30u);
    EXPECT_EQ(recording::started_with(relay_timer()).fraction, 0u);
    EXPECT_TRUE(sent.empty());
}

TEST_F(RelayEventsTest, a_disconnect_clears_one_byte_of_its_slot) {
    globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED] = 0x1122334455667701;

    dsr_disconn_cb();

    EXPECT_EQ(globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED], 0x1122334455667700u);
}

TEST_F(RelayEventsTest, a_second_disconnect_starts_a_second_timer) {
    dsr_disconn_cb();
    mgd_timer_t *first = relay_timer();
    recording::clear_calls();

    EXPECT_EQ(dsr_disconn_cb(), 0);

    EXPECT_NE(relay_timer(), first);
    EXPECT_TRUE(recording::is_running(first)) << "the first one is the host's to stop";
    EXPECT_TRUE(recording::is_running(relay_timer()));
    EXPECT_FALSE(is_connected());
    EXPECT_EQ(call_order({"mgd_timer_leaf_stop"}), Lines{});
}

TEST_F(RelayEventsTest, a_timer_that_cannot_be_made_is_not_started) {
    set_relay_timer();
    recording::fail("mgd_timer_leaf_new");

    EXPECT_EQ(dsr_disconn_cb(), 0);

    EXPECT_EQ(relay_timer(), nullptr);
    EXPECT_EQ(call_order({"mgd_timer_leaf_start"}), Lines{});
}

TEST_F(RelayEventsTest, after_a_disconnect_nothing_is_sent) {
    set_connected();
    publish(publisher, one_endpoint("web", 2));
    dsr_disconn_cb();
    recording::clear_calls();

    publish(publisher, one_endpoint("web", 2));
    withdraw(publisher, "web", 2);

    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(RelayEventsTest, the_events_need_a_block) {
    ds_globals_set(nullptr);

    EXPECT_EQ(dsr_connect_cb(), -1);
    EXPECT_EQ(dsr_disconn_cb(), -1);
    EXPECT_EQ(dsr_peer_down_cb(remote_address), -1);
    EXPECT_EQ(ds_db_node_down(id_of(remote)), -1);

    EXPECT_EQ(recording::calls(), Lines{});
    ds_globals_set(&globals);
}

TEST_F(RelayEventsTest, connection_events_pass_without_a_database) {
    forget_database();

    EXPECT_EQ(dsr_connect_cb(), 0);
    EXPECT_TRUE(is_connected());
    EXPECT_EQ(dsr_disconn_cb(), 0);
    EXPECT_FALSE(is_connected());

    EXPECT_NE(relay_timer(), nullptr);
}

// ---- a peer goes down ----

TEST_F(RelayEventsTest, a_peers_services_are_removed_and_its_watchers_told) {
    deliver(42, remote, one_endpoint("web", 2, 1).instance("a"), 0x77);
    publish(publisher, one_endpoint("web", 2, 2).instance("b"));
    deliver(43, remote, one_endpoint("web", 2, 3).instance("c"), 0x78);
    deliver(44, new_node(2), one_endpoint("web", 2, 4).instance("d"), 0x79);
    watch(new_watcher(), "web");
    const uint64_t version = element("web")->selem_version;
    recording::set_stamp(5000);
    forget_calls();

    EXPECT_EQ(dsr_peer_down_cb(remote_address), 0);

    ASSERT_EQ(services_of(element("web")).size(), 2u);
    EXPECT_STREQ(services_of(element("web"))[0]->instance, "d");
    EXPECT_STREQ(services_of(element("web"))[1]->instance, "b");
    EXPECT_EQ(element("web")->selem_version, version + 1);
    EXPECT_EQ(remote->down_count, 1u);
    EXPECT_EQ(remote->last_down_time, 5000u);
    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(told()[0].entries.size(), 2u);
    const std::string id = std::to_string(id_of(remote));
    EXPECT_EQ(texts(85), Lines{"[DS]: peer 0200:0000:0001 is down node:" + id + "\n"});
    EXPECT_EQ(texts(48), Lines{"[DS]: node[02:00:00:00:00:01] is down..."});
    const std::string line = "[DS]: node[" + id + "] ...Deleted remote service ";
    EXPECT_EQ(texts(18), (Lines{line, line}));
    EXPECT_EQ(recording::trace_ids(), (Ids{85, 48, 18, 58, 59, 18, 58, 59, 65, 65, 73}));
}

TEST_F(RelayEventsTest, a_node_down_moves_no_deletion_counter_and_tells_no_relay) {
    set_connected();
    deliver(42, remote, one_endpoint("web", 2));
    forget_calls();

    ds_db_node_down(id_of(remote));

    EXPECT_EQ(db()->remote_services_deleted, 0u);
    EXPECT_EQ(element("web")->remote_services_deleted, 0u);
    EXPECT_EQ(remote->services_deleted, 0u);
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_TRUE(sent.empty()) << "nobody watches";
    EXPECT_EQ(call_order({"lock"}), Lines{});
    EXPECT_NE(element("web"), nullptr) << "the empty element stays";
}

TEST_F(RelayEventsTest, a_removed_service_is_logged_then_traced_then_freed) {
    deliver(42, remote, one_endpoint("web", 2).instance("a"));
    recording::clear_calls();

    ds_db_node_down(id_of(remote));

    EXPECT_EQ(
        call_order({"rtrace", "fts", "avl", "dbly", "chunk"}),
        (Lines{"rtrace_internal(pub, 48)", "fts_get_stamp_fast()", "avl_walk(db.selem_tree)",
               "rtrace_internal(pub, 18)", "rtrace_internal(pub, 58)", "rtrace_internal(pub, 59)",
               "dbly_linkage_delink(service#1.client_link)",
               "dbly_linkage_delink(service#1.selem_link)", "chunk_free(service, service#1)"}));
}

TEST_F(RelayEventsTest, a_node_without_services_raises_every_version_and_tells_nobody) {
    watch(new_watcher(), "web");
    watch(publisher, "db");
    publish(publisher, one_endpoint("db", 2));
    const uint64_t web = element("web")->selem_version;
    const uint64_t db_version = element("db")->selem_version;
    forget_calls();

    EXPECT_EQ(ds_db_node_down(id_of(remote)), 0);

    EXPECT_EQ(element("web")->selem_version, web + 1);
    EXPECT_EQ(element("db")->selem_version, db_version + 1);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(remote->down_count, 1u);
}

TEST_F(RelayEventsTest, the_last_service_of_a_watched_name_is_told_as_a_deletion) {
    deliver(42, remote, one_endpoint("web", 2));
    watch(new_watcher(), "web");
    forget_calls();

    dsr_peer_down_cb(remote_address);

    EXPECT_EQ(slots_called(), (Ids{41, 45, 44}));
}

TEST_F(RelayEventsTest, placeholders_of_the_node_go_too) {
    new_placeholder(new_element("web"), one_endpoint("web", 2), remote, 42);

    ds_db_node_down(id_of(remote));

    EXPECT_EQ(newest("web"), nullptr);
}

TEST_F(RelayEventsTest, the_local_node_is_not_taken_down_as_a_peer) {
    publish(publisher, one_endpoint("web", 2));
    const uint64_t version = element("web")->selem_version;
    recording::clear_calls();

    EXPECT_EQ(dsr_peer_down_cb(local_address), -1);

    EXPECT_EQ(recording::trace_ids(), (Ids{85, 86}));
    EXPECT_EQ(texts(86), Lines{"[DS]: peer_down.. my node. huh!! ?\n"});
    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(element("web")->selem_version, version);
    EXPECT_EQ(local_node->down_count, 0u);
}

TEST_F(RelayEventsTest, taking_the_local_node_down_directly_unlinks_its_clients_services) {
    set_connected();
    publish(publisher, one_endpoint("web", 2).instance("a"));
    recording::clear_calls();

    EXPECT_EQ(ds_db_node_down(id_of(local_node)), 0);

    EXPECT_TRUE(services_of(publisher).empty());
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(RelayEventsTest, ids_without_a_record_take_their_services_down_unharmed) {
    for (const uintptr_t id : {1u, 127u}) {
        deliver(42, unrecorded_node(id), one_endpoint("web", 2), 0x77);
        recording::clear_calls();

        EXPECT_EQ(ds_db_node_down(id), 0);

        EXPECT_EQ(newest("web"), nullptr);
        EXPECT_EQ(texts(48), Lines{"[DS]: node[UNKNOWN] is down..."});
        EXPECT_EQ(call_order({"fts"}), Lines{});
    }
    EXPECT_EQ(ds_db_node_down(0), 0);
}

TEST_F(RelayEventsTest, an_unknown_address_makes_a_node_and_takes_it_down) {
    const uint8_t address[6] = {2, 0, 0, 0, 0, 9};

    EXPECT_EQ(dsr_peer_down_cb(address), 0);

    EXPECT_EQ(recording::table_values(&db()->node_table).size(), 3u);
    EXPECT_EQ(texts(48), Lines{"[DS]: node[02:00:00:00:00:09] is down..."});
}

TEST_F(RelayEventsTest, a_peer_down_without_address_or_database_fails_silently) {
    EXPECT_EQ(dsr_peer_down_cb(nullptr), -1);
    forget_database();
    EXPECT_EQ(dsr_peer_down_cb(remote_address), -1);
    EXPECT_EQ(ds_db_node_down(id_of(remote)), -1);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(remote->down_count, 0u);
}
