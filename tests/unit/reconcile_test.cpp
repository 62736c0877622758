// The end of a restart period: each row of the outcome table, versions, and who is told.
#include "lifecycle_fixture.h"

namespace {

class ReconcileTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        remote = new_node(1);
        selem = new_element("web");
        recording::clear_calls();
    }

    ds_service_t *add_local(uint32_t flags, uint32_t scope = 2) {
        ds_service_t *service =
            new_service(selem, one_endpoint("web", scope).instance("a"), publisher);
        service->flags = flags;
        return service;
    }

    ds_service_t *add_remote(uint32_t flags) {
        ds_service_t *service =
            new_service(selem, one_endpoint("web", 2).instance("r"), nullptr, remote, 42, 0x5);
        service->flags = flags;
        return service;
    }

    // A registration that has seen everything so far.
    ds_client_reg_t *watch_up_to_date() {
        ds_client_reg_t *reg = watch(new_watcher(), "web");
        reg->creg_ver = selem->selem_version;
        forget_calls();
        return reg;
    }

    int finalize() {
        forget_calls();
        version = selem->selem_version;
        return ds_db_finalize_restart();
    }

    ds_client_t *publisher = nullptr;
    ds_node_t *remote = nullptr;
    ds_service_elem_t *selem = nullptr;
    uint64_t version = 0; // of the element before the finalisation
};

const std::string on_local = "node[02:00:00:00:00:ff]";
const std::string on_remote = "node[02:00:00:00:00:01]";

} // namespace

// ---- marking ----

TEST_F(ReconcileTest, a_relay_restart_marks_the_remote_services_of_every_name) {
    ds_service_t *far = add_remote(1);
    ds_service_t *near = add_local(1);
    ds_service_t *elsewhere =
        new_service(new_element("db"), one_endpoint("db", 3), nullptr, remote, 42);
    forget_calls();

    EXPECT_EQ(ds_db_dsr_restarted(), 0);

    EXPECT_EQ(far->flags, 2u);
    EXPECT_EQ(near->flags, 1u);
    EXPECT_EQ(elsewhere->flags, 2u);
    EXPECT_EQ(recording::calls(), (Lines{"rtrace_internal(pub, 49)", "avl_walk(db.selem_tree)"}));
}

// ---- local services ----

TEST_F(ReconcileTest, a_service_published_in_the_period_is_sent_and_its_flags_cleared) {
    set_connected();
    ds_service_t *service = add_local(2);
    watch_up_to_date();

    EXPECT_EQ(finalize(), 0);

    EXPECT_EQ(service->flags, 0u);
    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_ADD);
    EXPECT_EQ(selem->selem_version, version + 1);
    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 19, 76, 62, 65, 73}));
    EXPECT_EQ(texts(50), Lines{"[DS]: finalizing ds/dsr restart"});
    EXPECT_EQ(texts(19), Lines{"DS -> DSR RESOLVED -Notify remote service after restart "
                               "web@SYSTEM/gen:1/ver:1/" +
                               on_local + " proc_id 11 pid 100"});
}

TEST_F(ReconcileTest, reconcile_wins_over_confirmed) {
    set_connected();
    ds_service_t *service = add_local(3);
    service->prev_ver = 1;

    finalize();

    EXPECT_EQ(services_of(selem), std::vector<ds_service_t *>{service});
    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_MODIFY);
}

TEST_F(ReconcileTest, a_placeholder_that_is_sent_gets_its_pid_after_its_line) {
    ds_service_t *service = new_placeholder(selem, one_endpoint("web", 1), local_node, 321);
    service->flags = 2;

    finalize();

    EXPECT_EQ(service->proc_id, 321u);
    EXPECT_EQ(texts(19), Lines{"DS -> DSR RESOLVED -Notify remote service after restart "
                               "web@RACK/gen:5/ver:1/" +
                               on_local + " proc_id 1 pid 321"});
}

TEST_F(ReconcileTest, without_connection_a_published_service_is_settled_all_the_same) {
    ds_service_t *service = add_local(2);

    finalize();

    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(service->prev_ver, 0u);
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(selem->selem_version, version + 1);
}

TEST_F(ReconcileTest, a_service_that_nobody_published_again_is_withdrawn_and_removed) {
    set_connected();
    new_placeholder(selem, one_endpoint("web", 2).instance("a"), local_node, 321, 0x77, 5);
    watch_up_to_date();

    finalize();

    EXPECT_EQ(newest("web"), nullptr);
    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(recording::sent_updates()[0].operation, DSR_DELETE);
    EXPECT_EQ(recording::sent_updates()[0].service_id, 0x77u);
    EXPECT_EQ(recording::sent_updates()[0].pid, 321u);
    EXPECT_EQ(recording::sent_updates()[0].version, 5u);
    EXPECT_EQ(selem->selem_version, version + 1);
    EXPECT_EQ(slots_called(), (Ids{41, 45, 44}));
    EXPECT_EQ(texts(20), Lines{"DS -> DSR RESOLVED -delete service after restart "
                               "web@SYSTEM/gen:5/ver:1/" +
                               on_local + " web 1\n"});
    EXPECT_EQ(call_order({"rtrace", "dsr", "chunk", "dbly", "lock"}),
              (Lines{"rtrace_internal(pub, 50)", "rtrace_internal(pub, 20)",
                     "dsr_dsc_send_update(3, \"web\", 119, \"a\", 2, 321, 5, 9, 0, 0)",
                     "rtrace_internal(pub, 76)", "rtrace_internal(pub, 62)",
                     "dbly_linkage_delink(service#1.client_link)",
                     "dbly_linkage_delink(service#1.selem_link)", "chunk_free(service, service#1)",
                     "rtrace_internal(notif, 74)"}));
    EXPECT_EQ(db()->local_services_deleted, 0u);
}

TEST_F(ReconcileTest, a_withdrawal_that_the_relay_never_heard_of_is_not_sent) {
    set_connected();
    ds_service_t *service = new_placeholder(selem, one_endpoint("web", 2), local_node, 321);
    service->prev_ver = 0;

    finalize();

    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(newest("web"), nullptr);
}

TEST_F(ReconcileTest, a_withdrawn_service_of_a_client_leaves_its_list) {
    add_local(1);

    finalize();

    EXPECT_TRUE(services_of(publisher).empty());
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(element("web"), selem) << "the empty element stays";
}

TEST_F(ReconcileTest, a_withdrawn_placeholder_of_pid_1_is_removed_unharmed) {
    new_placeholder(selem, one_endpoint("web", 2), local_node, 1);

    finalize();

    EXPECT_EQ(newest("web"), nullptr);
}

TEST_F(ReconcileTest, an_untouched_local_service_is_reset_and_nobody_told) {
    set_connected();
    ds_service_t *service = add_local(0, 1);
    watch_up_to_date();

    finalize();

    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(selem->selem_version, version);
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(texts(21), Lines{"DS -> DSR RESOLVED - Service resetweb@RACK/gen:1/ver:1/" +
                               on_local + " proc_id 11 pid 100"});
}

TEST_F(ReconcileTest, foreign_flag_bits_of_a_local_service_are_reset) {
    ds_service_t *service = add_local(8);

    finalize();

    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 21}));
}

TEST_F(ReconcileTest, a_service_that_stays_on_the_node_keeps_its_flags) {
    for (const uint32_t scope : {0u, 3u, 4u}) {
        for (const uint32_t flags : {1u, 2u, 3u}) {
            ds_service_t *service = add_local(flags, scope);

            finalize();

            EXPECT_EQ(service->flags, flags) << "scope " << scope;
            EXPECT_EQ(selem->selem_version, version);
            EXPECT_EQ(recording::trace_ids(), Ids{50});
        }
    }
}

TEST_F(ReconcileTest, the_scope_is_that_of_the_current_info) {
    ds_service_t *service = add_local(2, 2);
    service->publish_info->entries[0].scope = 3;

    finalize();

    EXPECT_EQ(service->flags, 2u);
    EXPECT_EQ(service->scope, 2u);
}

// ---- remote services ----

TEST_F(ReconcileTest, a_remote_service_that_was_not_replayed_is_removed) {
    set_connected();
    add_remote(2);
    watch_up_to_date();

    finalize();

    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(selem->selem_version, version + 1);
    EXPECT_EQ(slots_called(), (Ids{41, 45, 44}));
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(db()->remote_services_deleted, 0u);
    EXPECT_EQ(texts(22), Lines{"DS -> Clients RESOLVED notify remote service down "
                               "web@SYSTEM/gen:1/selem_version:1/" +
                               on_remote + " \n"});
}

TEST_F(ReconcileTest, a_remote_service_entered_in_the_period_appears) {
    ds_service_t *service =
        new_placeholder(selem, one_endpoint("web", 2).instance("a"), remote, 42);
    watch_up_to_date();

    finalize();

    EXPECT_EQ(service->proc_id, 42u);
    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(selem->selem_version, version + 1);
    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(told()[0].entries.size(), 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 23, 58, 59, 65, 73}));
    EXPECT_EQ(texts(23), Lines{"DS -> Clients RESOLVED notify remote service up "
                               "web@SYSTEM/gen:5/selem_version:1/" +
                               on_remote + " web 1 \n"});
}

TEST_F(ReconcileTest, a_remote_service_replayed_unchanged_is_reset_and_nobody_told) {
    ds_service_t *service = add_remote(3);
    watch_up_to_date();

    finalize();

    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(service->proc_id, 42u);
    EXPECT_EQ(selem->selem_version, version);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(texts(24), Lines{"DS -> Clients RESOLVED Service resetweb@SYSTEM/gen:1/"
                               "selem_version:1/" +
                               on_remote + " \n"});
}

TEST_F(ReconcileTest, other_flags_of_a_remote_service_are_reset) {
    for (const uint32_t flags : {0u, 4u, 6u, 5u}) {
        ds_service_t *service = add_remote(flags);

        finalize();

        EXPECT_EQ(service->flags, 0u) << flags;
        EXPECT_EQ(selem->selem_version, version) << flags;
    }
}

TEST_F(ReconcileTest, a_placeholder_marked_and_replayed_again_appears_after_all) {
    ds_service_t *service = new_placeholder(selem, one_endpoint("web", 2), remote, 42);
    service->flags = 3;
    watch_up_to_date();

    finalize();

    EXPECT_EQ(service->proc_id, 42u);
    EXPECT_EQ(service->flags, 0u);
    EXPECT_EQ(selem->selem_version, version + 1);
    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 23, 58, 59, 65, 73}));
}

TEST_F(ReconcileTest, a_remote_placeholder_without_marks_stays_one) {
    ds_service_t *service = new_placeholder(selem, one_endpoint("web", 2), remote, 42);
    service->flags = 0;

    finalize();

    EXPECT_EQ(service->proc_id, 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 24}));
}

TEST_F(ReconcileTest, a_remote_scope_does_not_matter) {
    ds_service_t *service = new_service(selem, one_endpoint("web", 3), nullptr, remote, 42, 0x5);
    service->flags = 2;

    finalize();

    EXPECT_EQ(newest("web"), nullptr);
}

// ---- elements ----

TEST_F(ReconcileTest, several_changes_of_one_name_are_one_version_and_one_notification) {
    add_remote(2);
    add_local(2);
    add_remote(2);
    ds_service_t *kept = add_remote(3);
    watch_up_to_date();

    finalize();

    EXPECT_EQ(services_of(selem).size(), 2u);
    EXPECT_EQ(newest("web"), kept);
    EXPECT_EQ(selem->selem_version, version + 1);
    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 24, 22, 19, 22, 65, 65, 73}));
}

TEST_F(ReconcileTest, only_the_changed_names_are_told) {
    ds_service_elem_t *other = new_element("other");
    new_service(other, one_endpoint("other", 2), publisher);
    const uint64_t other_version = other->selem_version;
    add_local(2);
    watch(new_watcher(), "other");

    finalize();

    EXPECT_EQ(slots_called(), Ids{41});
    EXPECT_EQ(other->selem_version, other_version);
    EXPECT_EQ(call_order({"avl_walk"}), Lines{"avl_walk(db.selem_tree)"});
    EXPECT_EQ(call_order({"mgd_timer"}), Lines{});
}

TEST_F(ReconcileTest, a_second_finalisation_changes_nothing) {
    add_local(2);
    add_remote(3);
    finalize();

    finalize();

    EXPECT_EQ(selem->selem_version, version);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(recording::trace_ids(), (Ids{50, 24, 21}));
}

TEST_F(ReconcileTest, settling_an_element_goes_on_with_the_walk) {
    add_local(2);

    EXPECT_EQ(ds_db_resolve_service_element(nullptr, local_node), 1);
    EXPECT_EQ(ds_db_resolve_service_element(selem, local_node), 1);

    EXPECT_EQ(newest("web")->flags, 0u);
}

TEST_F(ReconcileTest, services_of_nodes_without_record_are_settled_unharmed) {
    new_service(selem, one_endpoint("web", 2), nullptr, unrecorded_node(127), 42)->flags = 2;
    new_placeholder(selem, one_endpoint("web", 2), unrecorded_node(1), 43);

    finalize();

    EXPECT_EQ(services_of(selem).size(), 1u);
    EXPECT_NE(texts(22)[0].find("node[UNKNOWN]"), std::string::npos);
}

TEST_F(ReconcileTest, without_a_database_both_fail_silently) {
    forget_database();

    EXPECT_EQ(ds_db_dsr_restarted(), -1);
    EXPECT_EQ(ds_db_finalize_restart(), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}
