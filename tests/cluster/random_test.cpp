// Clients, daemons and the store come and go in an order that a seed decides.
#include <random>

#include "tests/cluster/cluster_fixture.h"

using namespace cluster_test;

namespace {

class LongRandom : public OneStore {
  protected:
    static constexpr unsigned seed = 20'240'229;
    static constexpr std::size_t members_max = 8;
    static constexpr std::uint32_t first_port = 1000, ports = 3;

    std::uint32_t pick(std::size_t count) {
        return std::uniform_int_distribution<std::uint32_t>(
            0, static_cast<std::uint32_t>(count - 1))(random);
    }
    Node &any_node() { return *cluster.nodes()[pick(cluster.nodes().size())]; }
    Publisher &any_publisher() {
        return cluster.members()[pick(cluster.members().size())]->publisher;
    }

    // ---- what clients do ----

    void publish() {
        const std::uint32_t member = pick(cluster.members().size());
        Publisher &publisher = cluster.members()[member]->publisher;
        if (!publisher.is_alive()) return;
        constexpr v1::Scope scopes[] = {v1::SCOPE_RACK, v1::SCOPE_SYSTEM, v1::SCOPE_LOCAL};
        // No two clients publish the same. Services of a client may have one endpoint.
        const std::string instance = std::to_string(member) + '-' + std::to_string(pick(4));
        const std::uint32_t port = first_port + pick(ports);
        publisher.offer({names[pick(names.size())], instance, scopes[pick(3)]}, port);
    }
    void withdraw() {
        Publisher &publisher = any_publisher();
        if (publisher.published().empty()) return;
        auto service = publisher.published().begin();
        std::advance(service, pick(publisher.published().size()));
        publisher.retract(Service(service->first));
    }
    void kill_client() {
        Publisher &publisher = any_publisher();
        if (publisher.is_alive()) publisher.kill();
    }
    void add_client() {
        if (cluster.members().size() < members_max) cluster.add_publisher(any_node());
    }
    void act() {
        const std::uint32_t dice = pick(20);
        if (dice < 12) return publish();
        if (dice < 17) return withdraw();
        if (dice < 18) return kill_client();
        add_client();
    }

    // ---- what breaks; each ends whole again ----

    void break_something() {
        switch (pick(5)) {
        case 0:
            etcd.kill();
            act_for_a_while();
            return etcd.start();
        case 1:
            etcd.freeze();
            act_for_a_while();
            return etcd.thaw();
        case 2: {
            Node &node = any_node();
            node.kill();
            return node.start();
        }
        case 3: {
            Node &node = any_node();
            node.stop(); // what it had is withdrawn, and published anew
            return node.start();
        }
        default: {
            Node &node = any_node();
            node.freeze();
            cluster.observe(4s); // a death to the others
            return node.thaw();
        }
        }
    }
    void act_for_a_while() {
        for (int action = 0; action < 15; action++)
            act();
    }

    std::minstd_rand random{seed};
};

} // namespace

TEST_F(LongRandom, histories_with_faults_end_in_agreement) {
    constexpr int rounds = 5;
    options_a.ttl = options_b.ttl = options_c.ttl = 3s;
    populate();

    for (int round = 0; round < rounds; round++) {
        act_for_a_while();
        break_something();
        act_for_a_while();
        ASSERT_TRUE(all_agree()) << "after round " << round;
    }
}
