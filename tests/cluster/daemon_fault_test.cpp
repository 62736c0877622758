// A daemon stands still, and two daemons want to be one node.
#include <csignal>

#include "tests/cluster/cluster_fixture.h"

using namespace cluster_test;

namespace {

class DaemonFault : public OneStore {};

constexpr char of_a_on_b[] = "mail/of-a RACK of a; web/of-a SYSTEM of a";

} // namespace

TEST_F(DaemonFault, a_standstill_below_the_ttl_is_not_noticed) {
    options_a.ttl = 60s;
    populate();

    a->freeze();
    publisher_of(a).offer({"web", "of-a"}, 81);
    cluster.observe(3s);
    a->thaw();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, ""));
    EXPECT_EQ(b->times_down(*a), 0u);
}

TEST_F(DaemonFault, a_standstill_beyond_the_ttl_is_a_death_to_the_others_until_it_is_over) {
    options_a.ttl = 3s;
    populate();

    a->freeze();
    a->is_connected = false;
    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), of_a_on_b);

    // It wakes with requests that came meanwhile, and with a lease that is over.
    publisher_of(a).offer({"web", "of-a"}, 81);
    publisher_of(a).offer({"log", "of-a"}, 514);
    publisher_of(b).publish({"web", "of-b"}, 82);
    a->thaw();
    a->is_connected = true;
    EXPECT_TRUE(all_agree());

    EXPECT_EQ(b->observer().losses(), of_a_on_b); // not once more
    EXPECT_EQ(b->times_down(*a), 1u);
    EXPECT_EQ(a->observer().losses(), "");
}

TEST_F(DaemonFault, a_client_that_dies_while_its_daemon_stands_still_does_not_come_back_with_it) {
    options_a.ttl = 3s;
    populate();

    a->freeze();
    a->is_connected = false;
    EXPECT_TRUE(all_agree());
    cluster.forget_changes();
    publisher_of(a).kill();
    a->thaw();
    a->is_connected = true;
    cluster.add_publisher(*a).publish({"log", "alive"}, 514);

    EXPECT_TRUE(all_agree());
}

// Both are alive: the first one stays, the second one ends with the reason.
TEST_F(DaemonFault, a_second_daemon_with_the_address_of_a_living_one_is_refused) {
    options_a.ttl = 4s;
    populate();
    const system_test::TemporaryDirectory elsewhere;
    system_test::Launch second;
    second.arguments = {system_test::dsd_program(), "--config", a->config_file(), "--runtime-dir",
                        elsewhere.path()};

    const system_test::Finished finished = run(second);

    EXPECT_EQ(finished.exit, (system_test::Exit{1, 0}));
    EXPECT_NE(finished.err.find("dsd: relay: the node address 02:00:00:00:00:61 is used by another "
                                "daemon, on host '"),
              std::string::npos)
        << finished.err;
    EXPECT_TRUE(all_agree());
    EXPECT_EQ(b->observer().losses(), "");
}

// Nobody takes the address of the dead before its lease has ended; what it had published is void
// then, and nobody waits for it.
TEST_F(DaemonFault, the_address_of_a_dead_daemon_can_be_used_elsewhere_after_its_ttl) {
    options_a.ttl = 4s;
    populate();

    const Clock::time_point killed = Clock::now();
    a->kill();
    publisher_of(a).kill();
    a->forget_runtime_dir();
    a->start();
    cluster.add_publisher(*a).publish({"log", "fresh"}, 514);

    EXPECT_TRUE(all_agree());
    EXPECT_LT(Clock::now() - killed, 25s); // less than a restart period
    EXPECT_TRUE(lost_only({b}, of_a_on_b));
    EXPECT_EQ(b->observer().told(Change::Kind::appeared), "log/fresh SYSTEM of a");
    EXPECT_EQ(a->observer().losses(), ""); // it never showed them
}
