// Cables are pulled: nodes and members of the store that are alive and cannot reach each other.
#include "tests/cluster/cluster_fixture.h"
#include "tests/cluster/store.h"

using namespace cluster_test;

namespace {

// Node c, and a store of one member, are hosts of their own; a and b are with the test.
class Partition : public ThreeNodes {
  protected:
    void SetUp() override {
        if (const std::string obstacle = Network::obstacle(); !obstacle.empty())
            GTEST_SKIP() << "this machine lets nobody make networks: " << obstacle;
        network.emplace();
        host_of_c.emplace(network->add_host());
        host_of_store.emplace(network->add_host());
        etcd.emplace(nullptr, relay_test::Place{host_of_store->address(), host_of_store->enter()});
        etcd->start();
        options_c.host = &*host_of_c;
    }
    ~Partition() override {
        if (host_of_c) host_of_c->heal();
        cluster.end();
    }
    void populate() { ThreeNodes::populate(etcd->endpoint()); }

    std::optional<Network> network;
    std::optional<Host> host_of_c, host_of_store;
    std::optional<relay_test::EtcdServer> etcd;
};

class LongPartition : public Partition {};

} // namespace

TEST_F(Partition, of_a_node_for_a_moment_loses_nothing) {
    populate();

    host_of_c->cut();
    change_everywhere();
    cluster.observe(2s);
    host_of_c->heal();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

// Long enough to be reported on the node, too short for its lease.
TEST_F(Partition, of_a_node_below_its_ttl_loses_nothing_even_if_the_history_is_compacted) {
    options_c.ttl = 60s;
    populate();
    Store store(etcd->endpoint());

    host_of_c->cut();
    change_everywhere();
    ASSERT_TRUE(is_told_gone(a, withdrawn_of_b));
    store.compact();
    cluster.observe(9s);
    host_of_c->heal();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
    EXPECT_EQ(a->times_down(*c), 0u);
}

TEST_F(Partition, of_the_store_from_everybody_loses_nothing) {
    populate();

    host_of_store->cut();
    change_everywhere();
    cluster.observe(5s);
    host_of_store->heal();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

TEST_F(Partition, in_which_a_client_dies_is_told_as_its_death_alone) {
    populate();

    host_of_c->cut();
    publisher_of(c).kill();
    publisher_of(a).withdraw({"web", "of-a"});
    ASSERT_TRUE(is_told_gone(b, "web/of-a SYSTEM of a"));
    host_of_c->heal();

    EXPECT_TRUE(all_agree());
    EXPECT_EQ(a->observer().losses(), "web/of-a SYSTEM of a; web/of-c SYSTEM of c");
}

// For the others the node dies after its TTL, for the node the others after the restart period; a
// fourth node holds what it knew. A minute later both sides have gone on.
TEST_F(LongPartition, of_a_minute_ends_with_both_sides_whole_again) {
    constexpr auto minute = 60s;
    options_c.ttl = 5s;
    populate();
    Host host_of_d = network->add_host();
    NodeOptions holding = options_c;
    holding.on_outage = "hold";
    holding.host = &host_of_d;
    Node &d = cluster.add_node(etcd->endpoint(), holding);
    cluster.add_publisher(d).publish({"web", "of-d"}, 80);
    ASSERT_TRUE(all_agree());
    cluster.forget_changes();
    const Clock::time_point begun = Clock::now();

    host_of_c->cut();
    host_of_d.cut();
    c->is_connected = d.is_connected = false;
    change_everywhere();
    EXPECT_TRUE(all_agree());
    EXPECT_EQ(d.observer().losses(), "");
    EXPECT_EQ(a->observer().losses(),
              "web/of-b SYSTEM of b; web/of-c SYSTEM of c; web/of-d SYSTEM of d");
    cluster.observe(minute - std::chrono::ceil<std::chrono::milliseconds>(Clock::now() - begun));
    cluster.forget_changes();
    host_of_c->heal();
    c->is_connected = true;
    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b}, ""));

    host_of_d.heal();
    d.is_connected = true;
    EXPECT_TRUE(all_agree());
    EXPECT_EQ(d.observer().losses(), withdrawn_of_b); // it kept the others all the time
}
