// The store dies, stands still, or loses what it knew.
#include "tests/cluster/cluster_fixture.h"
#include "tests/cluster/store.h"

using namespace cluster_test;

namespace {

class EtcdFault : public OneStore {};

} // namespace

TEST_F(EtcdFault, a_kill_and_a_start_lose_nothing_and_changes_are_told_afterwards) {
    populate();

    etcd.kill();
    change_everywhere();
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

TEST_F(EtcdFault, three_kills_in_a_row_lose_nothing) {
    populate();

    for (int kill = 0; kill < 3; kill++) {
        etcd.kill();
        etcd.start();
    }
    change_everywhere();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

TEST_F(EtcdFault, a_client_that_dies_while_the_store_is_away_is_missed_afterwards) {
    populate();

    etcd.kill();
    publisher_of(a).kill();
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(c->observer().losses(), "web/of-a SYSTEM of a");
}

TEST_F(EtcdFault, a_node_that_dies_along_with_the_store_is_missed_once_and_the_others_are_not) {
    options_a.ttl = 3s;
    populate();

    etcd.kill();
    a->kill();
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), "mail/of-a RACK of a; web/of-a SYSTEM of a");
    EXPECT_EQ(c->observer().losses(), "web/of-a SYSTEM of a");
}

// A started store counts leases from their beginning.
TEST_F(EtcdFault, a_start_amid_the_lease_of_a_dead_node_puts_its_end_off_and_no_more) {
    options_a.ttl = 6s;
    populate();
    Store store(etcd.endpoint());

    a->kill();
    ASSERT_TRUE(cluster.await([&] { return store.remaining_lease(a->address()) <= 3s; }));
    etcd.kill();
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), "mail/of-a RACK of a; web/of-a SYSTEM of a");
    EXPECT_EQ(b->observer().told(Change::Kind::appeared), "");
    EXPECT_EQ(c->observer().losses(), "web/of-a SYSTEM of a");
}

TEST_F(EtcdFault, a_standstill_below_the_ttl_loses_nothing) {
    populate();

    etcd.freeze();
    change_everywhere();
    cluster.observe(2s);
    etcd.thaw();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

// The store may find leases over that were renewed just before it stood still.
TEST_F(EtcdFault, a_standstill_beyond_the_ttl_ends_with_everything_back) {
    options_a.ttl = options_b.ttl = options_c.ttl = 3s;
    populate();

    etcd.freeze();
    change_everywhere();
    cluster.observe(5s);
    etcd.thaw();

    EXPECT_TRUE(all_agree());
}

// Nobody can renew the lease in time, as its owner stands still until it has ended.
TEST_F(EtcdFault, a_lease_that_was_renewed_and_is_found_over_after_a_standstill_is_made_anew) {
    options_a.ttl = 3s;
    populate();

    etcd.freeze();
    a->freeze();
    cluster.observe(5s);
    etcd.thaw();
    ASSERT_TRUE(is_told_gone(b, "web/of-a SYSTEM of a"));
    publisher_of(a).offer({"web", "of-a"}, 81);
    a->thaw();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), "mail/of-a RACK of a; web/of-a SYSTEM of a");
    EXPECT_EQ(a->observer().losses(), "");
}

TEST_F(EtcdFault, a_node_that_starts_while_the_store_is_away_joins_when_it_is_back) {
    populate();

    etcd.kill();
    Node &late = cluster.add_node(etcd.endpoint());
    cluster.add_publisher(late).publish({"log", "late"}, 514);
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, ""));
}

// It cannot take its services back, so they go with its lease.
TEST_F(EtcdFault, a_node_that_is_stopped_while_the_store_is_away_ends_cleanly_and_is_missed) {
    options_a.ttl = 3s;
    populate();

    etcd.kill();
    a->stop();
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({c}, "web/of-a SYSTEM of a"));
}

TEST_F(EtcdFault, a_node_that_is_stopped_while_the_store_stands_still_ends_cleanly_and_is_missed) {
    options_a.ttl = 3s;
    populate();

    etcd.freeze();
    a->stop();
    etcd.thaw();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({c}, "web/of-a SYSTEM of a"));
}

TEST_F(EtcdFault, a_wiped_store_is_filled_again_by_every_node) {
    populate();

    etcd.kill();
    etcd.wipe();
    change_everywhere();
    etcd.start();

    EXPECT_TRUE(all_agree());
    Node &late = cluster.add_node(etcd.endpoint());
    EXPECT_TRUE(all_agree());
    EXPECT_EQ(late.observer().view().size(), 5u); // what the store was filled with
}

TEST_F(EtcdFault, a_compaction_while_a_node_is_away_hides_nothing_from_its_return) {
    options_c.ttl = 60s;
    populate();
    Store store(etcd.endpoint());

    c->kill();
    publisher_of(a).publish({"web", "of-a"}, 81);
    publisher_of(b).withdraw({"web", "of-b"});
    ASSERT_TRUE(is_told_gone(a, "web/of-b SYSTEM of b"));
    store.compact();
    c->start();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(a->observer().losses(), "web/of-b SYSTEM of b"); // the store has the lease of c
}

TEST_F(EtcdFault, a_compaction_while_a_node_stands_still_hides_nothing_from_it) {
    populate();
    Store store(etcd.endpoint());

    c->freeze();
    publisher_of(b).withdraw({"web", "of-b"});
    publisher_of(a).publish({"web", "of-a"}, 81);
    publisher_of(a).publish({"log", "of-a"}, 514);
    ASSERT_TRUE(is_told_appeared(b, "log/of-a SYSTEM of a"));
    store.compact();
    etcd.kill(); // with what it had on its way to c
    etcd.start();
    c->thaw();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(c->observer().losses(), "web/of-b SYSTEM of b");
}

// The relay delivers everything again, and the directory finds the services that it knew.
TEST_F(EtcdFault, an_outage_that_is_reported_does_not_mix_up_services_with_one_endpoint) {
    populate();
    for (const char *instance : {"one", "two", "three"})
        publisher_of(a).publish({"log", instance}, 514);
    publisher_of(a).publish({"log", "one", v1::SCOPE_RACK}, 514);
    ASSERT_TRUE(all_agree());
    cluster.forget_changes();

    etcd.kill();
    for (Node *node : {b, c})
        ASSERT_TRUE(is_in_restart_period(node));
    etcd.start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, ""));
}

// The same on the node itself.
TEST_F(EtcdFault, a_restart_of_a_daemon_does_not_mix_up_services_with_one_endpoint) {
    options_a.ttl = 60s;
    populate();
    for (const char *instance : {"one", "two", "three"})
        publisher_of(a).publish({"log", instance}, 514);
    publisher_of(a).publish({"log", "one", v1::SCOPE_RACK}, 514);
    ASSERT_TRUE(all_agree());
    cluster.forget_changes();

    a->kill();
    a->start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({b, c}, ""));
    EXPECT_EQ(b->observer().told(Change::Kind::appeared), "");
}
