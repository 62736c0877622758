#include "tests/cluster/cluster_fixture.h"

#include <stdexcept>

namespace cluster_test {

void ThreeNodes::populate(const std::string &endpoints) {
    a = &cluster.add_node(endpoints, options_a);
    b = &cluster.add_node(endpoints, options_b);
    c = &cluster.add_node(endpoints, options_c);
    for (Node *node : {a, b, c}) {
        const std::string instance = std::string("of-") + node->letter();
        Publisher &publisher = cluster.add_publisher(*node);
        publisher.publish({"web", instance, v1::SCOPE_SYSTEM}, 80);
        publisher.publish({"mail", instance, v1::SCOPE_RACK}, 25);
        publisher.publish({"db", instance, v1::SCOPE_LOCAL}, 5432);
    }
    ASSERT_TRUE(all_agree());
    cluster.forget_changes();
}

Publisher &ThreeNodes::publisher_of(const Node *node) {
    for (const auto &member : cluster.members())
        if (member->node == node) return member->publisher;
    throw std::runtime_error("the node has no client");
}

bool ThreeNodes::is_told_gone(Node *node, const std::string &service) {
    return cluster.await(
        [&] { return node->observer().losses().find(service) != std::string::npos; });
}

bool ThreeNodes::is_told_appeared(Node *node, const std::string &service) {
    return cluster.await([&] { return node->observer().view().contains(service); });
}

bool ThreeNodes::is_in_restart_period(Node *node) {
    return cluster.await([node] {
        system_test::Client client(node->socket());
        return client.ok(system_test::list_request("web")).list().names(0).reconciling();
    });
}

void ThreeNodes::change_everywhere() {
    publisher_of(a).publish({"web", "of-a"}, 81);
    publisher_of(b).withdraw({"web", "of-b"});
    publisher_of(c).publish({"log", "of-c"}, 514);
}

testing::AssertionResult ThreeNodes::lost_only(const std::vector<Node *> &nodes,
                                               const std::string &services) {
    for (Node *node : nodes)
        if (node->observer().losses() != services)
            return testing::AssertionFailure()
                   << "node " << node->letter() << " lost: " << node->observer().losses();
    return testing::AssertionSuccess();
}

// The daemons end before their store does, and take their leave.
OneStore::~OneStore() {
    cluster.end();
}

} // namespace cluster_test
