// A directory restarts while the rest of the cluster goes on, and entries of an earlier life that
// nobody owns any more are turned back.
#include "cluster_fixture.h"

namespace {

class ClusterRestartTest : public ClusterTest {
  protected:
    static constexpr long pid = 100;

    // The publisher of node one with its first service, and a watcher on node two.
    void SetUp() override {
        ClusterTest::SetUp();
        publisher = new_client_on(*one, pid);
        publish_by(publisher, instance_of("web", "a;", 1));
        elsewhere = new_watcher_on(*two, "web");
        EXPECT_EQ(news(elsewhere), "have 1");
        old_id = records(*one, "web").front()->service_id;
    }

    // Node one restarts, and its watcher and its publisher are there again, the latter silent.
    void restart_one() {
        restart(*one);
        here = new_watcher_on(*one, "web");
        publisher = new_client_on(*one, pid);
    }

    void replay_to_one() {
        connect(*one);
        replay_own(*one);
    }

    // After a period nothing that one owns may be doubted, offered again or not.
    void expect_settled() {
        offer_stale(*one);
        EXPECT_EQ(relay.bounces(), std::vector<uint32_t>{});
        EXPECT_EQ(relay.vain_deletions(), 0u);
        for (const ds_service_t *service : records(*one, "web"))
            EXPECT_EQ(service->flags, 0u);
    }

    uint32_t id_of_newest() { return records(*one, "web").front()->service_id; }

    Client publisher{};
    Client here{};      // watches on the node that restarts
    Client elsewhere{}; // watches on another
    uint32_t old_id = 0;
};

using Versions = std::vector<uint32_t>;

recording::SentUpdate stale_update(uint32_t id, uint8_t last, uint32_t version) {
    return {DSR_ADD,
            "web",
            id,
            true,
            "old" + std::to_string(id) + ";",
            DS_SCOPE_SYSTEM,
            999,
            version,
            recording::encode_ip({10, 0, 0, last}, 1000),
            {},
            0};
}

} // namespace

// ---- a directory restarts ----

TEST_F(ClusterRestartTest, a_service_published_again_after_the_replay_is_kept) {
    restart_one();
    replay_to_one();
    EXPECT_EQ(news(here), "");
    EXPECT_EQ(visible(*one, "web"), "") << "nobody has claimed it yet";

    publish_by(publisher, instance_of("web", "a;", 1));
    EXPECT_EQ(news(here), "have 1");
    EXPECT_EQ(news(elsewhere), "") << "nothing leaves the node in its period";
    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 1");
    EXPECT_EQ(news(elsewhere), "have 1") << "a change of the entry that all know";
    EXPECT_TRUE(saw_no_gap(here, 1));
    EXPECT_TRUE(saw_no_gap(elsewhere, 1));
    EXPECT_EQ(visible_everywhere("web"), "1@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v2");
    EXPECT_EQ(id_of_newest(), old_id);
    expect_settled();
}

TEST_F(ClusterRestartTest, a_service_published_again_before_the_replay_is_kept_unnoticed) {
    restart_one();
    publish_by(publisher, instance_of("web", "a;", 1));
    EXPECT_NE(id_of_newest(), old_id);
    EXPECT_EQ(news(here), "have 1");

    replay_to_one();
    EXPECT_EQ(records(*one, "web").size(), 1u) << "one record, by whatever road it came";
    EXPECT_EQ(id_of_newest(), old_id);
    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 1");
    EXPECT_EQ(news(elsewhere), "") << "the entry never changed";
    EXPECT_TRUE(saw_no_gap(here, 1));
    EXPECT_EQ(visible_everywhere("web"), "1@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
    expect_settled();
}

TEST_F(ClusterRestartTest, a_service_changed_after_the_replay_changes_its_old_entry) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("web", "a;", 2));
    EXPECT_EQ(visible(*two, "web"), "1@1") << "still as it was";

    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 2; have 2");
    EXPECT_EQ(news(elsewhere), "have 2");
    EXPECT_EQ(visible_everywhere("web"), "2@1");
    EXPECT_EQ(relay_holds(), "web,2@1,v2");
    EXPECT_EQ(id_of_newest(), old_id);
    expect_settled();
}

// With other endpoints the replay is not recognized as the same service: the old entry goes and
// a new one comes, in the order of the records, which is newest first. The other nodes see both
// steps. The node itself has the service all the time.
TEST_F(ClusterRestartTest, a_service_changed_before_the_replay_is_an_old_entry_gone_and_a_new_one) {
    restart_one();
    publish_by(publisher, instance_of("web", "a;", 2));
    replay_to_one();
    EXPECT_EQ(records(*one, "web").size(), 2u);
    EXPECT_EQ(visible(*one, "web"), "2@1");

    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 2; have 2");
    EXPECT_TRUE(saw_no_gap(here, 2));
    EXPECT_EQ(news(elsewhere), "deleted; empty; have 2");
    EXPECT_EQ(visible_everywhere("web"), "2@1");
    EXPECT_EQ(relay_holds(), "web,2@1,v1");
    EXPECT_NE(id_of_newest(), old_id);
    expect_settled();
}

TEST_F(ClusterRestartTest, a_service_published_before_and_after_the_replay_keeps_its_identity) {
    restart_one();
    publish_by(publisher, instance_of("web", "a;", 1));
    replay_to_one();
    publish_by(publisher, instance_of("web", "a;", 2));
    EXPECT_EQ(records(*one, "web").size(), 1u);

    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 1; have 2; have 2");
    EXPECT_EQ(news(elsewhere), "have 2");
    EXPECT_EQ(visible_everywhere("web"), "2@1");
    EXPECT_EQ(relay_holds(), "web,2@1,v2");
    EXPECT_EQ(id_of_newest(), old_id);
    expect_settled();
}

// Process and endpoint are the same, so the new instance inherits the entry. The other nodes tell
// instances apart by their text and keep the old one until the relay replays to them.
TEST_F(ClusterRestartTest, a_service_renamed_after_the_replay_inherits_the_entry) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("web", "renamed;", 1));
    EXPECT_EQ(records(*one, "web").size(), 1u);
    EXPECT_EQ(id_of_newest(), old_id);

    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 1; have 1");
    EXPECT_EQ(news(elsewhere), "have 1 1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
    EXPECT_EQ(visible(*one, "web"), "1@1");
    EXPECT_EQ(visible(*two, "web"), "1@1 1@1");

    relay_goes_away();
    relay_comes_back();
    relay_periods_end();
    EXPECT_EQ(visible_everywhere("web"), "1@1");
    EXPECT_TRUE(saw_no_gap(elsewhere, 1));
    expect_settled();
}

TEST_F(ClusterRestartTest, a_service_that_nobody_publishes_again_is_withdrawn_at_the_end) {
    restart_one();
    replay_to_one();
    EXPECT_EQ(news(elsewhere), "");
    EXPECT_EQ(visible(*two, "web"), "1@1") << "it has until the end of the period";

    own_period_ends(*one);

    EXPECT_EQ(news(here), "deleted; empty");
    EXPECT_EQ(news(elsewhere), "deleted; empty");
    EXPECT_EQ(visible_everywhere("web"), "");
    EXPECT_EQ(relay_holds(), "");
    expect_settled();
}

TEST_F(ClusterRestartTest, a_service_published_first_in_the_period_is_announced_at_its_end) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("web", "a;", 1));
    publish_by(publisher, instance_of("web", "b;", 2));
    EXPECT_EQ(news(here), "have 1; have 2 1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1");

    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 2 1");
    EXPECT_EQ(news(elsewhere), "have 2 1; have 2 1") << "one message for each entry";
    EXPECT_TRUE(saw_no_gap(elsewhere, 1));
    EXPECT_EQ(visible_everywhere("web"), "1@1 2@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v2 web,2@1,v1");
    expect_settled();
}

TEST_F(ClusterRestartTest, a_taken_over_service_withdrawn_in_the_period_goes_at_once) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("web", "a;", 1));

    withdraw_by(publisher, "web", DS_SCOPE_SYSTEM, "a;");

    EXPECT_EQ(news(here), "have 1; deleted; empty");
    EXPECT_EQ(news(elsewhere), "deleted; empty");
    EXPECT_EQ(relay_holds(), "");
    own_period_ends(*one);
    EXPECT_EQ(news(here), "");
    EXPECT_EQ(news(elsewhere), "");
    EXPECT_EQ(visible_everywhere("web"), "");
    expect_settled();
}

TEST_F(ClusterRestartTest, a_service_of_the_node_alone_is_untouched_by_the_end_of_the_period) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("own", "a;", 7, DS_SCOPE_LOCAL));
    watch_by(here, "own");
    EXPECT_EQ(news(here), "have 7");
    publish_by(publisher, instance_of("web", "a;", 1));

    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 1; have 1") << "not a word about the other name";
    EXPECT_EQ(visible(*one, "own"), "7@1");
    EXPECT_EQ(visible(*two, "own"), "");
    EXPECT_EQ(relay_holds(), "web,1@1,v2");
    expect_settled();
}

TEST_F(ClusterRestartTest, services_of_other_nodes_appear_with_the_connection_and_stay) {
    const Client other = new_client_on(*two, 300);
    publish_by(other, instance_of("web", "b;", 2));
    EXPECT_EQ(news(elsewhere), "have 2 1");
    restart_one();

    replay_to_one();
    EXPECT_EQ(news(here), "have 2");
    publish_by(other, instance_of("web", "c;", 3));
    EXPECT_EQ(news(here), "have 3 2") << "live updates of others need not wait";
    own_period_ends(*one);

    EXPECT_EQ(news(here), "have 3 2") << "only the unclaimed service went";
    EXPECT_TRUE(saw_no_gap(here, 2));
    EXPECT_TRUE(saw_no_gap(elsewhere, 2));
    EXPECT_EQ(visible_everywhere("web"), "2@2 3@2");
    EXPECT_EQ(relay_holds(), "web,2@2,v1 web,3@2,v1");
    expect_settled();
}

TEST_F(ClusterRestartTest, many_services_meet_every_fate_in_one_period) {
    publish_by(publisher, instance_of("web", "b;", 2));
    publish_by(publisher, instance_of("web", "c;", 3));
    publish_by(publisher, instance_of("web", "d;", 4));
    news(elsewhere);
    restart_one();

    publish_by(publisher, instance_of("web", "a;", 1)); // as before
    replay_to_one();
    publish_by(publisher, instance_of("web", "b;", 2));  // as before
    publish_by(publisher, instance_of("web", "c;", 13)); // changed
    publish_by(publisher, instance_of("web", "e;", 5));  // new; d does not return
    news(here);
    own_period_ends(*one);

    EXPECT_EQ(visible_everywhere("web"), "13@1 1@1 2@1 5@1");
    EXPECT_EQ(relay_holds(), "web,13@1,v2 web,1@1,v1 web,2@1,v2 web,5@1,v1");
    EXPECT_EQ(news(here), "have 5 13 2 1") << "one message for all";
    EXPECT_TRUE(saw_no_gap(here, 1));
    EXPECT_TRUE(saw_no_gap(here, 2));
    EXPECT_TRUE(saw_no_gap(elsewhere, 1));
    EXPECT_TRUE(saw_no_gap(elsewhere, 2));
    expect_settled();
}

TEST_F(ClusterRestartTest, a_relay_that_goes_and_comes_within_the_own_period_changes_nothing) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("web", "a;", 1));

    relay_goes_away();
    relay_comes_back();
    replay_own(*one);
    EXPECT_EQ(records(*one, "web").size(), 1u);
    own_period_ends(*one);
    relay_periods_end();

    EXPECT_EQ(news(here), "have 1; have 1");
    EXPECT_EQ(news(elsewhere), "");
    EXPECT_TRUE(saw_no_gap(here, 1));
    EXPECT_EQ(visible_everywhere("web"), "1@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
    expect_settled();
}

// The second replay knows the service by its old endpoint only, so an unclaimed twin stands beside
// it. Both carry one id: the entry is deleted for the twin and then written again.
TEST_F(ClusterRestartTest, a_change_before_a_second_replay_ends_with_the_changed_service_alone) {
    restart_one();
    replay_to_one();
    publish_by(publisher, instance_of("web", "a;", 2));
    relay_goes_away();
    relay_comes_back();
    replay_own(*one);
    EXPECT_EQ(records(*one, "web").size(), 2u);

    own_period_ends(*one);
    relay_periods_end();

    EXPECT_EQ(news(here), "have 2; have 2");
    EXPECT_TRUE(saw_no_gap(here, 2));
    EXPECT_EQ(visible_everywhere("web"), "2@1");
    EXPECT_EQ(relay_holds(), "web,2@1,v2");
    EXPECT_EQ(news(elsewhere), "deleted; empty; have 2");
    expect_settled();
}

TEST_F(ClusterRestartTest, a_period_that_ends_without_the_relay_leaves_one_entry_to_turn_back) {
    restart_one();
    publish_by(publisher, instance_of("web", "a;", 1));
    own_period_ends(*one);
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
    EXPECT_NE(id_of_newest(), old_id);

    connect(*one);
    offer_stale(*one);

    EXPECT_EQ(relay.bounces(), Versions{2});
    EXPECT_EQ(relay.vain_deletions(), 0u);
    EXPECT_EQ(news(here), "have 1; have 1");
    EXPECT_EQ(news(elsewhere), "have 1 1; have 1") << "the new entry comes before the old one goes";
    EXPECT_TRUE(saw_no_gap(elsewhere, 1));
    EXPECT_EQ(visible_everywhere("web"), "1@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
}

// ---- stale entries ----

TEST_F(ClusterRestartTest, a_stale_entry_bounces_once_and_the_living_one_stays) {
    relay.plant(one->octet, stale_update(0x999, 9, 4));
    connect(*two);
    EXPECT_EQ(news(elsewhere), "have 9 1; have 9 1") << "the list has the known one, too";

    connect(*one);
    offer_stale(*one);

    EXPECT_EQ(relay.bounces(), Versions{5});
    EXPECT_EQ(relay.vain_deletions(), 0u);
    EXPECT_EQ(db_of(*one)->relay_updates_received, 0u);
    EXPECT_EQ(db_of(*one)->relay_deletes_sent, 0u) << "an answer is not an update of a service";
    EXPECT_EQ(news(elsewhere), "have 1");
    EXPECT_TRUE(saw_no_gap(elsewhere, 1));
    EXPECT_EQ(visible_everywhere("web"), "1@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
}

TEST_F(ClusterRestartTest, each_of_many_stale_entries_bounces_with_its_own_version) {
    for (uint32_t id = 1; id <= 20; ++id)
        relay.plant(one->octet, stale_update(id, static_cast<uint8_t>(50 + id), id * 10));

    connect(*one);
    const Versions bounced = relay.bounces();
    connect(*one);

    ASSERT_EQ(bounced.size(), 20u);
    for (uint32_t index = 0; index < 20; ++index)
        EXPECT_EQ(bounced[index], (index + 1) * 10 + 1);
    EXPECT_EQ(relay.bounces(), bounced) << "nothing bounces twice";
    EXPECT_EQ(relay.vain_deletions(), 0u) << "others that never held them lose nothing";
    EXPECT_EQ(relay_holds(), "web,1@1,v1");
    EXPECT_EQ(visible_everywhere("web"), "1@1");
}

TEST_F(ClusterRestartTest, live_updates_never_return_to_their_own_node) {
    publish_by(publisher, instance_of("web", "a;", 2));
    publish_by(publisher, instance_of("web", "b;", 3));
    withdraw_by(publisher, "web", DS_SCOPE_SYSTEM, "b;");
    leaves(publisher);

    EXPECT_EQ(news(elsewhere), "have 2; have 3 2; have 2; deleted; empty");
    EXPECT_EQ(db_of(*one)->relay_updates_received, 0u);
    EXPECT_EQ(db_of(*two)->relay_updates_received, 5u);
    EXPECT_EQ(relay.bounces(), Versions{});
    EXPECT_EQ(relay_holds(), "");
    EXPECT_EQ(visible_everywhere("web"), "");
}
