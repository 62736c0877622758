// The restart periods' matching: relay replays against local records, local publications against
// relay-created ones, and the marking of remote records.
#include "lifecycle_fixture.h"

namespace {

class ResolveTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        remote = new_node(1);
        selem = new_element("web");
        recording::clear_calls();
    }

    // A replay of the relay about one process of a node.
    int replay(const PublishInfoBuilder &info, ds_node_t *node, uint32_t pid = publisher_pid,
               uint32_t id = 0x99, uint32_t gen = 3) {
        const ds_dsr_service_ref_t ref = {id, gen};
        recording::clear_calls();
        return ds_db_resolve_service_info_from_dsr(pid, node, new_info(info), selem, &ref);
    }

    ds_service_t *new_local(const PublishInfoBuilder &info, uint32_t gen = 1) {
        ds_service_t *service = new_service(selem, info, publisher);
        service->gen = gen;
        return service;
    }

    ds_client_t *publisher = nullptr;
    ds_node_t *remote = nullptr;
    ds_service_elem_t *selem = nullptr;
};

} // namespace

// ---- a replay that matches ----

TEST_F(ResolveTest, a_replay_gives_a_local_record_the_relays_identity) {
    ds_service_t *service = new_local(one_endpoint("web", 2), 8);
    ds_service_publish_info *own = service->publish_info;
    const uint32_t old_id = service->service_id;
    const uint64_t version = selem->selem_version;

    EXPECT_EQ(replay(one_endpoint("web", 1), local_node), 0);

    EXPECT_EQ(services_of(selem), std::vector<ds_service_t *>{service});
    EXPECT_EQ(service->service_id, 0x99u);
    EXPECT_EQ(service->gen, 3u) << "the relay's generation wins over a higher one";
    EXPECT_EQ(service->prev_ver, 3u);
    EXPECT_EQ(service->flags, 1u);
    EXPECT_EQ(service->proc_id, publisher->client_idx);
    EXPECT_EQ(service->publish_info, own);
    EXPECT_EQ(selem->selem_version, version);
    char id_text[16];
    snprintf(id_text, sizeof id_text, "%x", old_id);
    const std::string node = " node[02:00:00:00:00:ff]";
    EXPECT_EQ(recording::trace_ids(), (Ids{8, 9, 10}));
    EXPECT_EQ(texts(8), Lines{"DSR->DS RESOLVE [id:0x99] web@RACK/gen:3" + node});
    EXPECT_EQ(texts(9), Lines{"DSR->DS CMP [id:0x" + std::string(id_text) + "] web@SYSTEM/gen:8" +
                              node + ",from_dsr=0"});
    EXPECT_EQ(texts(10), Lines{"DSR->DS RESOLVED [id:0x" + std::string(id_text) +
                               "] web@SYSTEM/gen:8" + node});
}

TEST_F(ResolveTest, a_replay_refreshes_a_relay_created_record) {
    ds_service_t *service = new_placeholder(selem, one_endpoint("web", 2), remote, 42, 0x77, 5);
    service->flags = 2;

    EXPECT_EQ(replay(one_endpoint("web", 1), remote, 42), 0);

    EXPECT_EQ(services_of(selem), std::vector<ds_service_t *>{service});
    EXPECT_EQ(service->service_id, 0x99u);
    EXPECT_EQ(service->gen, 3u);
    EXPECT_EQ(service->prev_ver, 3u);
    EXPECT_EQ(service->flags, 3u) << "the flag is added, not stored";
    EXPECT_EQ(service->proc_id, 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{8, 9, 11}));
    const std::string node = " node[02:00:00:00:00:01]";
    EXPECT_EQ(texts(9), Lines{"DSR->DS CMP [id:0x77] web@SYSTEM/gen:5" + node + ",from_dsr=1"});
    EXPECT_EQ(texts(11), Lines{"DSR->DS RESOLVED_REMOTE_UPDATE [id:0x99] web@RACK/gen:3" + node});
}

TEST_F(ResolveTest, an_info_that_no_record_took_stays_its_owners) {
    new_local(one_endpoint("web", 2));
    ds_service_publish_info *info = new_info(one_endpoint("web", 2));
    const ds_dsr_service_ref_t ref = {1, 1};

    ds_db_resolve_service_info_from_dsr(publisher_pid, local_node, info, selem, &ref);

    EXPECT_EQ(info->held, 0);
    EXPECT_NE(info->service_name, nullptr);
}

TEST_F(ResolveTest, instance_and_scope_do_not_count_in_the_match) {
    ds_service_t *service = new_local(one_endpoint("web", 2).instance("a"));

    replay(one_endpoint("web", 1).instance("b"), local_node);

    EXPECT_EQ(services_of(selem), std::vector<ds_service_t *>{service});
    EXPECT_EQ(service->service_id, 0x99u);
    EXPECT_STREQ(service->instance, "a");
}

TEST_F(ResolveTest, the_newest_of_two_matching_records_is_taken_and_ends_the_walk) {
    ds_service_t *older = new_local(one_endpoint("web", 2).instance("a"));
    ds_service_t *newer = new_local(one_endpoint("web", 2).instance("b"));

    replay(one_endpoint("web", 2), local_node);

    EXPECT_EQ(newer->service_id, 0x99u);
    EXPECT_NE(older->service_id, 0x99u);
    EXPECT_EQ(texts(9).size(), 1u);
}

TEST_F(ResolveTest, every_record_looked_at_is_logged_with_the_replays_node) {
    new_local(one_endpoint("web", 2, 1));
    new_placeholder(selem, one_endpoint("web", 1, 2), remote, 42, 0x55, 4);

    replay(one_endpoint("web", 2, 1), local_node);

    ASSERT_EQ(texts(9).size(), 2u);
    EXPECT_EQ(texts(9)[0],
              "DSR->DS CMP [id:0x55] web@RACK/gen:4 node[02:00:00:00:00:ff],from_dsr=1");
    EXPECT_EQ(recording::trace_ids(), (Ids{8, 9, 9, 10}));
}

TEST_F(ResolveTest, nothing_is_sent_or_told_by_a_match) {
    set_connected();
    new_local(one_endpoint("web", 2));
    watch(new_watcher(), "web");
    forget_calls();

    replay(one_endpoint("web", 2), local_node);

    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(recording::sent_updates().empty());
}

// ---- a replay that matches nothing ----

TEST_F(ResolveTest, an_unmatched_replay_enters_a_relay_owned_record) {
    recording::set_stamp(5000);

    EXPECT_EQ(replay(one_endpoint("web", 2).instance("a"), local_node, 321, 0x99, 3), 0);

    ds_service_t *service = newest("web");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->proc_id, 1u);
    EXPECT_EQ(service->pid, 321u);
    EXPECT_EQ(service->service_id, 0x99u);
    EXPECT_EQ(service->gen, 3u);
    EXPECT_EQ(service->prev_ver, 3u);
    EXPECT_EQ(service->flags, 1u);
    EXPECT_EQ(service->node, local_node);
    EXPECT_STREQ(service->instance, "a");
    EXPECT_EQ(service->added_time, 5000u);
    EXPECT_EQ(service->client_link.prev, nullptr);
    EXPECT_EQ(service->publish_info->held, 1);
    EXPECT_EQ(selem->selem_version, 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{8, 14}));
    EXPECT_EQ(texts(14), Lines{"DS->DS pub web@SYSTEM/gen:3/ver:1/node[02:00:00:00:00:ff] "
                               "...modified service web 321 1\n"});
}

TEST_F(ResolveTest, a_replay_of_generation_1_is_logged_as_new) {
    replay(one_endpoint("web", 1), remote, 42, 0x99, 1);

    EXPECT_EQ(texts(14), Lines{"DS->DS pub web@RACK/gen:1/ver:1/node[02:00:00:00:00:01] ...new "
                               "service web 42 1\n"});
}

TEST_F(ResolveTest, a_local_placeholder_is_counted_nowhere_and_a_remote_one_as_remote) {
    replay(one_endpoint("web", 2), local_node);
    EXPECT_EQ(db()->local_services_added, 0u);
    EXPECT_EQ(local_node->services_added, 0u);

    replay(one_endpoint("web", 2), remote);
    EXPECT_EQ(db()->remote_services_added, 1u);
    EXPECT_EQ(selem->remote_services_added, 1u);
    EXPECT_EQ(selem->remote_change_count, 1u);
    EXPECT_EQ(remote->services_added, 0u);
}

TEST_F(ResolveTest, a_replay_whose_id_is_0_keeps_the_id_0) {
    replay(one_endpoint("web", 2), local_node, 321, 0, 3);

    EXPECT_EQ(newest("web")->service_id, 0u);
}

TEST_F(ResolveTest, a_difference_in_endpoints_node_or_process_enters_a_second_record) {
    ds_service_t *service = new_local(PublishInfoBuilder("web").endpoints(2));
    const PublishInfoBuilder same = PublishInfoBuilder("web").endpoints(2);
    const PublishInfoBuilder other_byte =
        PublishInfoBuilder("web").ip(10, 0, 0, 1, 1000).ip(10, 0, 0, 2, 1002);
    const PublishInfoBuilder other_length =
        PublishInfoBuilder("web").ip(10, 0, 0, 1, 1000).raw(DS_EP_TYPE_IP, {1});
    const PublishInfoBuilder other_type =
        PublishInfoBuilder("web")
            .ip(10, 0, 0, 1, 1000)
            .raw(DS_EP_TYPE_PATH, recording::encode_ip({10, 0, 0, 2}, 1001));

    EXPECT_EQ(replay(other_byte, local_node), 0);
    EXPECT_EQ(replay(other_length, local_node), 0);
    EXPECT_EQ(replay(other_type, local_node), 0);
    EXPECT_EQ(replay(PublishInfoBuilder("web").endpoints(1), local_node), 0);
    EXPECT_EQ(replay(same, remote), 0);
    EXPECT_EQ(replay(same, local_node, 101), 0);
    EXPECT_EQ(services_of(selem).size(), 7u);
    EXPECT_EQ(service->flags, 0u);

    EXPECT_EQ(replay(same, local_node), 0);
    EXPECT_EQ(services_of(selem).size(), 7u);
    EXPECT_EQ(service->flags, 1u);
}

TEST_F(ResolveTest, an_info_without_endpoints_never_matches) {
    new_local(PublishInfoBuilder("web"));

    replay(PublishInfoBuilder("web"), local_node);
    replay(PublishInfoBuilder("web"), local_node);

    EXPECT_EQ(services_of(selem).size(), 3u);
    EXPECT_EQ(newest("web")->proc_id, 1u);
}

TEST_F(ResolveTest, a_record_that_cannot_be_made_fails_the_replay) {
    ds_service_publish_info *info = new_info(one_endpoint("web", 2));
    const ds_dsr_service_ref_t ref = {1, 1};
    recording::fail("chunk_malloc");

    EXPECT_EQ(ds_db_resolve_service_info_from_dsr(42, remote, info, selem, &ref), -1);

    EXPECT_EQ(recording::trace_ids(), (Ids{8, 12}));
    EXPECT_EQ(texts(12), Lines{"[DS]: ds_db_init_service for web failed\n"});
    EXPECT_EQ(info->held, 0);
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(selem->selem_version, 0u);
}

TEST_F(ResolveTest, a_replay_for_a_node_without_record_prints_unknown) {
    EXPECT_EQ(replay(one_endpoint("web", 2), unrecorded_node(5)), 0);
    EXPECT_EQ(replay(one_endpoint("web", 2), unrecorded_node(5)), 0);

    EXPECT_EQ(texts(11), Lines{"DSR->DS RESOLVED_REMOTE_UPDATE [id:0x99] web@SYSTEM/gen:3 "
                               "node[UNKNOWN]"});
}

TEST_F(ResolveTest, a_replay_without_its_arguments_fails_silently) {
    const ds_dsr_service_ref_t ref = {1, 1};
    ds_service_publish_info *info = new_info(one_endpoint("web"));
    const auto resolve = ds_db_resolve_service_info_from_dsr;

    EXPECT_EQ(resolve(1, remote, nullptr, selem, &ref), -1);
    EXPECT_EQ(resolve(1, remote, info, nullptr, &ref), -1);
    EXPECT_EQ(resolve(1, remote, info, selem, nullptr), -1);
    forget_database();
    EXPECT_EQ(resolve(1, remote, info, selem, &ref), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

// ---- a local publication against relay-created records ----

TEST_F(ResolveTest, a_new_record_inherits_its_twins_identity_and_the_twin_goes) {
    new_placeholder(selem, one_endpoint("web", 1).instance("x"), local_node, publisher_pid, 0x77,
                    5);
    ds_service_t *service = new_local(one_endpoint("web", 2));
    const uint64_t version = selem->selem_version;
    recording::clear_calls();

    EXPECT_EQ(ds_db_resolve_service_entry_to_dsr(service, selem), 0);

    EXPECT_EQ(services_of(selem), std::vector<ds_service_t *>{service});
    EXPECT_EQ(service->service_id, 0x77u);
    EXPECT_EQ(service->gen, 5u);
    EXPECT_EQ(service->prev_ver, 5u);
    EXPECT_EQ(service->flags, 3u);
    EXPECT_EQ(selem->selem_version, version);
    EXPECT_EQ(recording::trace_ids(), (Ids{15, 16, 16, 17}));
    const std::string node = " node[02:00:00:00:00:ff]";
    EXPECT_EQ(texts(15), Lines{"DS->DSR RESOLVE web@SYSTEM/gen:1" + node + "\n"});
    EXPECT_EQ(texts(16), (Lines{"DS->DSR CMP web@SYSTEM/gen:1" + node + ",from_dsr=0\n",
                                "DS->DSR CMP web@RACK/gen:5" + node + ",from_dsr=1\n"}));
    EXPECT_EQ(texts(17), Lines{"DS->DSR RESOLVED web@SYSTEM/gen:5" + node + "\n"});
}

TEST_F(ResolveTest, the_twin_is_released_without_lock_counters_or_notification) {
    new_placeholder(selem, one_endpoint("web", 2), local_node, publisher_pid);
    ds_service_t *service = new_local(one_endpoint("web", 2));
    watch(new_watcher(), "web");
    forget_calls();

    ds_db_resolve_service_entry_to_dsr(service, selem);

    EXPECT_EQ(
        call_order({"lock", "slot", "fts", "dsr", "dbly", "chunk"}),
        (Lines{"dbly_linkage_delink(service#1.selem_link)", "chunk_free(service, service#1)"}));
    EXPECT_EQ(db()->local_services_deleted, 0u);
}

TEST_F(ResolveTest, without_a_twin_a_new_record_only_awaits_reconciliation) {
    ds_service_t *service = new_local(one_endpoint("web", 2));
    const uint32_t id = service->service_id;

    EXPECT_EQ(ds_db_resolve_service_entry_to_dsr(service, selem), 0);

    EXPECT_EQ(service->flags, 2u);
    EXPECT_EQ(service->service_id, id);
    EXPECT_EQ(service->gen, 1u);
    EXPECT_EQ(service->prev_ver, 0u);
    EXPECT_EQ(recording::trace_ids(), (Ids{15, 16}));
}

TEST_F(ResolveTest, a_twin_must_be_relay_created_and_agree_in_node_process_and_endpoints) {
    new_placeholder(selem, one_endpoint("web", 2), remote, publisher_pid);
    new_placeholder(selem, one_endpoint("web", 2), local_node, 101);
    new_placeholder(selem, one_endpoint("web", 2, 9), local_node, publisher_pid);
    new_local(one_endpoint("web", 2));
    ds_service_t *service = new_local(one_endpoint("web", 2));
    recording::clear_calls();

    ds_db_resolve_service_entry_to_dsr(service, selem);

    EXPECT_EQ(services_of(selem).size(), 5u);
    EXPECT_EQ(service->flags, 2u);
    EXPECT_EQ(texts(16).size(), 5u);
}

TEST_F(ResolveTest, a_new_publication_prints_modified_with_an_inherited_generation) {
    // The instance keeps the publication from matching the placeholder as a change.
    new_placeholder(selem, one_endpoint("web", 2), local_node, publisher_pid, 0x77, 5);
    set_own_timer();
    recording::clear_calls();

    EXPECT_EQ(publish(publisher, one_endpoint("web", 2).instance("a")), 0);

    ASSERT_EQ(services_of(selem).size(), 1u);
    EXPECT_EQ(newest("web")->service_id, 0x77u);
    EXPECT_EQ(newest("web")->flags, 3u);
    EXPECT_EQ(texts(36), Lines{"CLIENT[pid:100/0x10]->DS pub web@SYSTEM/gen:5/ver:2/"
                               "node[02:00:00:00:00:ff] ...modified service\n"});
}

TEST_F(ResolveTest, resolving_nothing_succeeds_and_does_nothing) {
    ds_service_t *service = new_local(one_endpoint("web", 2));
    recording::clear_calls();

    EXPECT_EQ(ds_db_resolve_service_entry_to_dsr(nullptr, selem), 0);
    EXPECT_EQ(ds_db_resolve_service_entry_to_dsr(service, nullptr), 0);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(service->flags, 0u);
}

// ---- marking ----

TEST_F(ResolveTest, marking_stores_exactly_reconcile_on_remote_records) {
    ds_service_t *far = new_service(selem, one_endpoint("web", 2), nullptr, remote, 42);
    ds_service_t *confirmed = new_placeholder(selem, one_endpoint("web", 2), remote, 43);
    confirmed->flags = 3;
    ds_service_t *near = new_local(one_endpoint("web", 2));
    near->flags = 1;
    recording::clear_calls();

    EXPECT_EQ(ds_db_mark_remote_services(selem, nullptr), 1);

    EXPECT_EQ(far->flags, 2u);
    EXPECT_EQ(confirmed->flags, 2u);
    EXPECT_EQ(near->flags, 1u);
    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(ResolveTest, marking_no_element_goes_on_with_the_walk) {
    EXPECT_EQ(ds_db_mark_remote_services(nullptr, nullptr), 1);
    EXPECT_EQ(ds_db_mark_remote_services(selem, selem), 1);
}
