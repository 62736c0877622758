// The relay goes away and comes back, and nodes go down, seen from every node of a cluster.
#include "cluster_fixture.h"

namespace {

// A publisher and a watcher of "web" on each node: endpoint 1 on node one, and so on.
class ClusterOutageTest : public ClusterTest {
  protected:
    void SetUp() override {
        ClusterTest::SetUp();
        publishers = {new_client_on(*one, 101), new_client_on(*two, 102),
                      new_client_on(*three, 103)};
        for (uint8_t index = 0; index < 3; ++index)
            publish_by(publishers[index], instance_of("web", "a;", index + 1));
        watchers = {new_watcher_on(*one, "web"), new_watcher_on(*two, "web"),
                    new_watcher_on(*three, "web")};
        expect_news("have 3 2 1", "have 3 2 1", "have 3 2 1");
    }

    void expect_news(const char *on_one, const char *on_two, const char *on_three) {
        EXPECT_EQ(news(watchers[0]), on_one) << "node one";
        EXPECT_EQ(news(watchers[1]), on_two) << "node two";
        EXPECT_EQ(news(watchers[2]), on_three) << "node three";
    }
    void expect_no_news() { expect_news("", "", ""); }

    void expect_no_gap(uint8_t last) {
        for (const Client &watcher : watchers)
            EXPECT_TRUE(saw_no_gap(watcher, last)) << "node " << +watcher.node->octet;
    }

    std::vector<Client> publishers;
    std::vector<Client> watchers;
};

using Versions = std::vector<uint32_t>;
constexpr char everything[] = "1@1 2@2 3@3";
constexpr char everything_held[] = "web,1@1,v1 web,2@2,v1 web,3@3,v1";

} // namespace

// ---- the relay goes away and comes back ----

TEST_F(ClusterOutageTest, an_outage_within_its_period_passes_unnoticed) {
    relay_goes_away();
    EXPECT_EQ(relay_period(*one), 30u);
    EXPECT_EQ(visible_everywhere("web"), everything) << "nothing goes with the connection";
    relay_comes_back();
    EXPECT_EQ(relay_period(*one), 40u);
    relay_periods_end();

    expect_no_news();
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
    EXPECT_EQ(relay.bounces(), Versions{});
    for (const ds_service_t *service : records(*one, "web"))
        EXPECT_EQ(service->flags, 0u);
}

TEST_F(ClusterOutageTest, a_relay_that_forgot_everything_is_told_everything_again) {
    relay_goes_away();
    relay.forget_everything();
    relay_comes_back();
    relay_periods_end();

    expect_no_news();
    EXPECT_EQ(db_of(*one)->relay_adds_sent, 2u) << "a relay that comes back hears of additions";
    EXPECT_EQ(db_of(*one)->relay_modifies_sent, 0u);
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
}

TEST_F(ClusterOutageTest, a_change_during_an_outage_arrives_as_one_message_at_its_end) {
    relay_goes_away();
    publish_by(publishers[0], instance_of("web", "a;", 11));
    expect_news("have 3 2 11", "", "");
    relay_comes_back();
    expect_no_news();
    relay_periods_end();

    expect_news("", "have 11 3 2", "have 11 3 2");
    expect_no_gap(2);
    expect_no_gap(3);
    EXPECT_EQ(visible_everywhere("web"), "11@1 2@2 3@3");
    EXPECT_EQ(relay_holds(), "web,11@1,v2 web,2@2,v1 web,3@3,v1");
    EXPECT_EQ(relay.bounces(), Versions{});
}

TEST_F(ClusterOutageTest, a_service_born_during_an_outage_appears_at_its_end) {
    relay_goes_away();
    publish_by(publishers[0], instance_of("web", "b;", 4));
    relay_comes_back();
    EXPECT_EQ(visible(*two, "web"), everything);
    relay_periods_end();

    expect_news("have 4 3 2 1", "have 4 3 2 1", "have 4 3 2 1");
    EXPECT_EQ(visible_everywhere("web"), "1@1 2@2 3@3 4@1");
    EXPECT_EQ(relay_holds(), "web,1@1,v1 web,2@2,v1 web,3@3,v1 web,4@1,v1");
}

TEST_F(ClusterOutageTest, a_service_gone_during_an_outage_is_turned_back_and_goes_at_its_end) {
    relay_goes_away();
    withdraw_by(publishers[0], "web", DS_SCOPE_SYSTEM, "a;");
    expect_news("have 3 2", "", "");
    EXPECT_EQ(relay_holds(), everything_held) << "nobody could tell the relay";

    relay_comes_back();
    EXPECT_EQ(relay.bounces(), Versions{2});
    EXPECT_EQ(relay_holds(), "web,2@2,v1 web,3@3,v1");
    expect_no_news();
    relay_periods_end();

    expect_news("", "have 3 2", "have 3 2");
    EXPECT_EQ(visible_everywhere("web"), "2@2 3@3");
    EXPECT_EQ(relay.bounces(), Versions{2}) << "not a second time";
    EXPECT_EQ(relay.vain_deletions(), 0u);
}

TEST_F(ClusterOutageTest, an_outage_beyond_its_period_takes_remote_services_until_it_ends) {
    relay_goes_away();
    relay_periods_end();
    expect_news("have 1", "have 2", "have 3");
    EXPECT_EQ(visible(*one, "web"), "1@1");
    EXPECT_EQ(visible(*two, "web"), "2@2");

    relay_comes_back();

    expect_news("have 2 1; have 3 2 1", "have 1 2; have 3 1 2", "have 1 3; have 2 1 3");
    for (uint8_t index = 0; index < 3; ++index)
        EXPECT_TRUE(saw_no_gap(watchers[index], index + 1)) << "its own is always there";
    EXPECT_EQ(relay_period(*one), 30u) << "a period that is over is not opened again";
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
    EXPECT_EQ(relay.bounces(), Versions{});
}

TEST_F(ClusterOutageTest, a_change_and_a_departure_during_a_long_outage_are_known_after_it) {
    relay_goes_away();
    relay_periods_end();
    publish_by(publishers[0], instance_of("web", "a;", 11));
    leaves(publishers[1]);
    expect_news("have 1; have 11", "have 2; deleted; empty", "have 3");

    relay_comes_back();

    EXPECT_EQ(visible_everywhere("web"), "11@1 3@3");
    EXPECT_EQ(relay_holds(), "web,11@1,v2 web,3@3,v1");
    EXPECT_EQ(relay.bounces(), Versions{2});
    EXPECT_EQ(relay.vain_deletions(), 0u);
    EXPECT_TRUE(saw_no_gap(watchers[2], 3));
}

TEST_F(ClusterOutageTest, two_outages_within_one_period_pass_unnoticed) {
    relay_goes_away();
    relay_comes_back();
    relay_goes_away();
    EXPECT_EQ(relay_period(*one), 30u) << "a timer of its own";
    relay_comes_back();
    relay_periods_end();

    expect_no_news();
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
    EXPECT_EQ(relay.bounces(), Versions{});
}

TEST_F(ClusterOutageTest, a_service_replayed_in_both_of_two_outages_appears_once) {
    relay_goes_away();
    publish_by(publishers[0], instance_of("web", "b;", 4));
    relay_comes_back();
    relay_goes_away();
    relay_comes_back();
    relay_periods_end();

    expect_news("have 4 3 2 1", "have 4 3 2 1", "have 4 3 2 1");
    EXPECT_EQ(visible_everywhere("web"), "1@1 2@2 3@3 4@1");
    EXPECT_EQ(records(*two, "web").size(), 4u);
    for (const ds_service_t *service : records(*two, "web"))
        EXPECT_EQ(service->flags, 0u);
}

TEST_F(ClusterOutageTest, a_service_that_goes_between_two_outages_leaves_no_trace) {
    relay_goes_away();
    publish_by(publishers[0], instance_of("web", "b;", 4));
    relay_comes_back();
    relay_goes_away();
    withdraw_by(publishers[0], "web", DS_SCOPE_SYSTEM, "b;");
    relay_comes_back();
    relay_periods_end();

    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
    EXPECT_EQ(relay.bounces(), Versions{2});
    expect_news("have 4 3 2 1; have 3 2 1", "have 3 2 1", "have 3 2 1");
    expect_no_gap(1);
}

TEST_F(ClusterOutageTest, changes_before_and_between_two_outages_arrive_as_the_last_one) {
    relay_goes_away();
    publish_by(publishers[0], instance_of("web", "a;", 11));
    relay_comes_back();
    relay_goes_away();
    publish_by(publishers[0], instance_of("web", "a;", 12));
    relay_comes_back();
    expect_news("have 3 2 11; have 3 2 12", "", "");
    relay_periods_end();

    expect_news("", "have 12 3 2", "have 12 3 2");
    EXPECT_EQ(visible_everywhere("web"), "12@1 2@2 3@3");
    EXPECT_EQ(relay_holds(), "web,12@1,v3 web,2@2,v1 web,3@3,v1");
    EXPECT_EQ(relay.bounces(), Versions{});
    for (const ds_service_t *service : records(*two, "web"))
        EXPECT_EQ(service->flags, 0u);
}

TEST_F(ClusterOutageTest, a_service_gone_before_the_second_outage_goes_at_the_end_of_both) {
    relay_goes_away();
    withdraw_by(publishers[0], "web", DS_SCOPE_SYSTEM, "a;");
    relay_comes_back();
    relay_goes_away();
    relay_comes_back();
    relay_periods_end();

    expect_news("have 3 2", "have 3 2", "have 3 2");
    EXPECT_EQ(visible_everywhere("web"), "2@2 3@3");
    EXPECT_EQ(relay_holds(), "web,2@2,v1 web,3@3,v1");
    EXPECT_EQ(relay.bounces(), Versions{2}) << "once, by the first return";
    EXPECT_EQ(relay.vain_deletions(), 0u);
    expect_no_gap(2);
    expect_no_gap(3);
}

TEST_F(ClusterOutageTest, live_updates_of_the_period_follow_its_end) {
    relay_goes_away();
    relay_comes_back();
    publish_by(publishers[0], instance_of("web", "a;", 11));
    publish_by(publishers[1], instance_of("web", "b;", 12));
    withdraw_by(publishers[2], "web", DS_SCOPE_SYSTEM, "a;");
    EXPECT_EQ(visible(*three, "web"), "1@1 2@2");
    relay_periods_end();

    EXPECT_EQ(visible_everywhere("web"), "11@1 12@2 2@2");
    EXPECT_EQ(relay_holds(), "web,11@1,v2 web,12@2,v1 web,2@2,v1");
    expect_no_gap(2);
    EXPECT_EQ(news(watchers[2]), "have 2 1; have 2 11; have 12 2 11");
}

// ---- nodes go down ----

TEST_F(ClusterOutageTest, a_node_that_goes_down_takes_all_its_services_one_message_a_name) {
    const Client busy = new_client_on(*three, 333);
    for (uint8_t name = 0; name < 20; ++name)
        for (uint8_t last = 0; last < 3; ++last)
            publish_by(busy, instance_of("s" + std::to_string(name), std::to_string(last) + ";",
                                         100 + last));
    publish_by(publishers[0], instance_of("s7", "a;", 1));
    const Client all = new_client_on(*one, 700);
    for (uint8_t name = 0; name < 20; ++name)
        watch_by(all, ("s" + std::to_string(name)).c_str());
    news(all);
    const size_t told_before = all.record->nnotifs;

    lose(*three);

    EXPECT_EQ(all.record->nnotifs - told_before, 20u);
    EXPECT_EQ(news(watchers[0]), "have 2 1");
    EXPECT_EQ(news(watchers[1]), "have 2 1");
    EXPECT_EQ(visible_everywhere("web"), "1@1 2@2");
    for (uint8_t name = 0; name < 20; ++name)
        EXPECT_EQ(visible_everywhere(("s" + std::to_string(name)).c_str()), name == 7 ? "1@1" : "");
    EXPECT_TRUE(saw_no_gap(all, 1, "s7"));
    EXPECT_EQ(relay_holds(), "s7,1@1,v1 web,1@1,v1 web,2@2,v1");
    EXPECT_EQ(db_of(*one)->relay_deletes_sent, 0u) << "the dead node's entries are not ours";
    enter(*one);
    EXPECT_EQ(new_node(3)->down_count, 1u);
}

TEST_F(ClusterOutageTest, a_node_that_returns_from_the_dead_is_like_a_new_one) {
    lose(*three);
    EXPECT_EQ(news(watchers[0]), "have 2 1");
    EXPECT_EQ(news(watchers[1]), "have 2 1");

    three = start_node(3);
    EXPECT_EQ(visible(*three, "web"), "1@1 2@2");
    publish_by(new_client_on(*three, 103), instance_of("web", "a;", 3));

    EXPECT_EQ(news(watchers[0]), "have 3 2 1");
    EXPECT_EQ(news(watchers[1]), "have 3 2 1");
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
}

TEST_F(ClusterOutageTest, a_node_that_dies_during_an_outage_is_gone_at_its_end) {
    relay_goes_away();
    lose(*three); // nobody is connected, so nobody is told
    expect_no_news();
    EXPECT_EQ(visible(*one, "web"), everything);
    relay_comes_back();
    relay_periods_end();

    EXPECT_EQ(news(watchers[0]), "have 2 1");
    EXPECT_EQ(news(watchers[1]), "have 2 1");
    EXPECT_EQ(visible_everywhere("web"), "1@1 2@2");
    EXPECT_EQ(relay_holds(), "web,1@1,v1 web,2@2,v1");
}

TEST_F(ClusterOutageTest, the_end_of_an_unknown_node_tells_nobody_and_moves_every_version) {
    const uint64_t version = records(*one, "web").front()->selem->selem_version;

    EXPECT_EQ(report_down(*one, 99), 0);

    expect_no_news();
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
    EXPECT_EQ(records(*one, "web").front()->selem->selem_version, version + 1);
}

TEST_F(ClusterOutageTest, the_end_of_the_node_itself_is_refused) {
    const uint64_t version = records(*one, "web").front()->selem->selem_version;

    EXPECT_EQ(report_down(*one, one->octet), -1);

    expect_no_news();
    EXPECT_EQ(visible_everywhere("web"), everything);
    EXPECT_EQ(relay_holds(), everything_held);
    EXPECT_EQ(records(*one, "web").front()->selem->selem_version, version);
    EXPECT_EQ(one->self->down_count, 0u);
}
