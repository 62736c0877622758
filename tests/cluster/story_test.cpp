// What a cluster does on a good day, and when clients and nodes come and go.
#include "tests/cluster/cluster_fixture.h"

using namespace cluster_test;

namespace {

class Story : public OneStore {
  protected:
    // When the observer was told last that the service has gone.
    static Clock::time_point last_told_gone(Node *node, const std::string &service) {
        Clock::time_point at;
        for (const Change &change : node->observer().changes())
            if (change.kind == Change::Kind::went && change.service == service) at = change.at;
        return at;
    }
    void expect_that_nobody_missed_a() {
        EXPECT_TRUE(lost_only({b, c}, ""));
        for (Node *node : {b, c})
            EXPECT_EQ(node->times_down(*a), 0u) << "on node " << node->letter();
    }
};

constexpr char of_a_on_b[] = "mail/of-a RACK of a; web/of-a SYSTEM of a";
constexpr char of_a_on_c[] = "web/of-a SYSTEM of a";

} // namespace

TEST_F(Story, every_scope_reaches_whom_it_should) {
    populate();

    const View on_a = a->observer().view(), on_c = c->observer().view();

    EXPECT_EQ(on_a.size(), 6u);
    EXPECT_TRUE(on_a.contains("mail/of-b RACK of b"));
    EXPECT_FALSE(on_a.contains("mail/of-c RACK of c"));
    EXPECT_FALSE(on_a.contains("db/of-b LOCAL of b"));
    EXPECT_EQ(on_c.size(), 5u);
    EXPECT_TRUE(on_c.contains("web/of-a SYSTEM of a"));
    EXPECT_FALSE(on_c.contains("mail/of-a RACK of a"));
}

TEST_F(Story, changes_and_withdrawals_reach_every_node_and_nothing_else_is_told_as_gone) {
    populate();

    publisher_of(a).publish({"web", "of-a"}, 81);
    publisher_of(b).withdraw({"mail", "of-b", v1::SCOPE_RACK});
    EXPECT_TRUE(all_agree());

    EXPECT_EQ(c->observer().told(Change::Kind::changed), "web/of-a SYSTEM of a");
    EXPECT_EQ(a->observer().losses(), "mail/of-b RACK of b");
    EXPECT_EQ(c->observer().losses(), "");
}

TEST_F(Story, a_client_that_is_killed_takes_its_services_along_on_every_node) {
    populate();

    publisher_of(a).kill();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), of_a_on_b);
    EXPECT_EQ(c->observer().losses(), of_a_on_c);
}

TEST_F(Story, a_node_that_is_killed_is_missed_once_and_after_its_ttl) {
    options_a.ttl = 3s;
    populate();

    const Clock::time_point killed = Clock::now();
    a->kill();
    EXPECT_TRUE(all_agree());

    EXPECT_EQ(b->observer().losses(), of_a_on_b);
    EXPECT_EQ(c->observer().losses(), of_a_on_c);
    for (Node *node : {b, c}) {
        EXPECT_EQ(node->observer().told(Change::Kind::appeared), "");
        // Nobody takes a connection that ended for a death; the rest of the lease counts.
        const auto delay = last_told_gone(node, of_a_on_c) - killed;
        EXPECT_GT(delay, 500ms);
        EXPECT_LT(delay, 15s);
    }
}

TEST_F(Story, a_node_that_is_stopped_takes_its_services_along_at_once) {
    options_a.ttl = 60s; // nothing below happens because a lease ends
    populate();

    const Clock::time_point stopped = Clock::now();
    a->stop();

    EXPECT_TRUE(all_agree());
    EXPECT_LT(Clock::now() - stopped, 30s);
    EXPECT_EQ(b->observer().losses(), of_a_on_b);
    EXPECT_EQ(c->observer().losses(), of_a_on_c);
}

TEST_F(Story, a_node_that_is_stopped_keeping_its_services_and_started_again_is_not_missed) {
    options_a.ttl = 60s;
    options_a.keep_published = true;
    populate();

    a->stop();
    a->start();

    EXPECT_TRUE(all_agree());
    expect_that_nobody_missed_a();
}

TEST_F(Story, services_that_a_node_keeps_go_with_its_lease_when_it_is_not_started_again) {
    options_a.ttl = 3s;
    options_a.keep_published = true;
    populate();

    a->stop();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), of_a_on_b);
    EXPECT_EQ(c->observer().losses(), of_a_on_c);
}

TEST_F(Story, a_node_that_is_killed_and_started_again_within_its_ttl_is_not_missed) {
    options_a.ttl = 60s;
    populate();

    a->kill();
    a->start();

    EXPECT_TRUE(all_agree());
    expect_that_nobody_missed_a();
}

TEST_F(Story, what_changes_at_a_restart_is_told_as_a_change) {
    options_a.ttl = 60s;
    populate();

    a->kill();
    publisher_of(a).offer({"web", "of-a"}, 81);
    a->start();

    EXPECT_TRUE(all_agree());
    expect_that_nobody_missed_a();
    EXPECT_EQ(c->observer().told(Change::Kind::changed), "web/of-a SYSTEM of a");
}
