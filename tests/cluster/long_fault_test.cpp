// What takes the restart periods of half a minute.
#include "tests/cluster/cluster_fixture.h"

using namespace cluster_test;

namespace {

constexpr auto restart_period = 30s;

class LongFault : public OneStore {};

} // namespace

// Node c holds what it knows, a and b let go of it.
TEST_F(LongFault,
       a_store_that_is_away_for_longer_than_the_restart_period_is_treated_as_configured) {
    options_c.on_outage = "hold";
    populate();

    const Clock::time_point killed = Clock::now();
    etcd.kill();
    for (Node *node : {a, b, c})
        node->is_connected = false;
    EXPECT_TRUE(all_agree());
    EXPECT_GE(Clock::now() - killed, restart_period);
    EXPECT_EQ(a->observer().losses(),
              "mail/of-b RACK of b; web/of-b SYSTEM of b; web/of-c SYSTEM of c");
    EXPECT_EQ(c->observer().losses(), "");

    cluster.forget_changes();
    change_everywhere();
    etcd.start();
    for (Node *node : {a, b, c})
        node->is_connected = true;
    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({b, c}, withdrawn_of_b));
}

TEST_F(LongFault,
       a_client_that_dies_along_with_its_daemon_is_missed_when_the_next_one_has_settled) {
    options_a.ttl = 120s;
    populate();
    cluster.add_publisher(*a).publish({"log", "survivor"}, 514);
    ASSERT_TRUE(all_agree());

    a->kill();
    publisher_of(a).kill();
    a->start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({b}, "mail/of-a RACK of a; web/of-a SYSTEM of a"));
    EXPECT_EQ(b->times_down(*a), 0u);
}
