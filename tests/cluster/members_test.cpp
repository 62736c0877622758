// A store of three members, of which some are away.
#include "tests/cluster/cluster_fixture.h"

using namespace cluster_test;

namespace {

std::string joined(const std::vector<std::string> &endpoints) {
    std::string text;
    for (const std::string &endpoint : endpoints)
        text += (text.empty() ? "" : " ") + endpoint;
    return text;
}

class Members : public ThreeNodes {
  protected:
    ~Members() override { cluster.end(); }

    relay_test::EtcdCluster etcd;
};

// Every member is a host of its own.
class MemberPartition : public ThreeNodes {
  protected:
    void SetUp() override {
        if (const std::string obstacle = Network::obstacle(); !obstacle.empty())
            GTEST_SKIP() << "this machine lets nobody make networks: " << obstacle;
        network.emplace();
        std::array<relay_test::Place, 3> places;
        for (relay_test::Place &place : places) {
            hosts.push_back(network->add_host());
            place = {hosts.back().address(), hosts.back().enter()};
        }
        etcd.emplace(places);
        populate(joined(etcd->endpoints()));
    }
    ~MemberPartition() override { cluster.end(); }

    std::optional<Network> network;
    std::vector<Host> hosts;
    std::optional<relay_test::EtcdCluster> etcd;
};

} // namespace

// All nodes use the first that they can; it is killed first.
TEST_F(Members, that_die_one_after_the_other_and_come_back_are_not_missed) {
    populate(joined(etcd.endpoints()));

    for (std::size_t member = 0; member < 3; member++) {
        etcd.member(member).kill();
        publisher_of(a).publish({"log", "round-" + std::to_string(member)}, 514);
        EXPECT_TRUE(all_agree()) << "without member " << member;
        etcd.member(member).start();
    }

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, ""));
}

TEST_F(Members, that_are_too_few_for_a_while_lose_nothing) {
    populate(joined(etcd.endpoints()));

    etcd.member(0).kill();
    etcd.member(1).kill();
    change_everywhere();
    cluster.observe(1s);
    etcd.member(0).start();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

TEST_F(Members, of_which_the_one_in_use_stands_still_are_used_in_turn) {
    populate(joined(etcd.endpoints()));

    etcd.member(0).freeze();
    change_everywhere();
    EXPECT_TRUE(all_agree());
    etcd.member(0).thaw();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

TEST_F(MemberPartition, of_the_one_in_use_is_not_missed) {
    hosts[0].cut();
    change_everywhere();
    EXPECT_TRUE(all_agree());
    hosts[0].heal();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}

TEST_F(MemberPartition, of_all_of_them_from_each_other_loses_nothing) {
    for (Host &host : hosts)
        host.cut();
    change_everywhere();
    cluster.observe(2s);
    for (Host &host : hosts)
        host.heal();

    EXPECT_TRUE(all_agree());
    EXPECT_TRUE(lost_only({a, b, c}, withdrawn_of_b));
}
