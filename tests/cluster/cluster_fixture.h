// Clusters on an etcd of the test's own.
#pragma once
#include <gtest/gtest.h>

#include "tests/cluster/checker.h"
#include "tests/cluster/cluster.h"
#include "tests/relay/etcd_server.h"

namespace cluster_test {

// Nodes a and b of one rack and c of another, each with a client that publishes in every scope.
class ThreeNodes : public testing::Test {
  protected:
    // Starts them; returns when all agree, and forgets what was told until then.
    void populate(const std::string &endpoints);
    Publisher &publisher_of(const Node *node);
    testing::AssertionResult all_agree() { return agrees(cluster); }
    // Whether the observer is told that the service has gone, or is there.
    bool is_told_gone(Node *node, const std::string &service);
    bool is_told_appeared(Node *node, const std::string &service);
    // Whether the node's directory comes to know of an outage.
    bool is_in_restart_period(Node *node);
    // What clients do while something is out of order. Nothing else than `withdrawn_of_b` goes.
    void change_everywhere();
    static constexpr char withdrawn_of_b[] = "web/of-b SYSTEM of b";
    // Whether each of the nodes has been told that these services went, and no others.
    testing::AssertionResult lost_only(const std::vector<Node *> &nodes,
                                       const std::string &services);

    Cluster cluster;
    NodeOptions options_a, options_b, options_c = {.rack = "west"};
    Node *a = nullptr, *b = nullptr, *c = nullptr;
};

// The same with a store of one member.
class OneStore : public ThreeNodes {
  protected:
    OneStore() { etcd.start(); }
    ~OneStore() override;
    void populate() { ThreeNodes::populate(etcd.endpoint()); }

    relay_test::EtcdServer etcd;
};

} // namespace cluster_test
