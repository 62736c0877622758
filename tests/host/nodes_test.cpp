// The nodes and the relay's figures, as clients are told of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>

#include "directory_fixture.h"
#include "host/nodes.h"

namespace ds::host {
namespace {

constexpr NodeAddress own_node = {0x02, 0x10, 0x20, 0x30, 0x40, 0x50};

NodeAddress node_of(std::uint16_t number) {
    return {0x02,
            0x77,
            0,
            0,
            static_cast<std::uint8_t>(number >> 8),
            static_cast<std::uint8_t>(number)};
}
std::string bytes_of(const NodeAddress &node) {
    return {node.begin(), node.end()};
}

class EngineWithNodes final : public relay::Engine {
  public:
    const char *name() const override { return "scripted"; }
    bool is_replicating() const override { return true; }
    void start(relay::Events &reports) override { events = &reports; }
    int send(const dsr_update_t &) override { return 0; }
    relay::EngineStatus status() const override { return shown; }
    std::vector<relay::NodeStatus> nodes_behind(const NodeAddress &after,
                                                std::size_t count) const override {
        std::vector<relay::NodeStatus> found;
        for (auto next = alive.upper_bound(after); next != alive.end() && found.size() < count;
             ++next)
            found.push_back(next->second);
        return found;
    }
    void add(const NodeAddress &node, std::string rack = "east") {
        alive[node] = {node, std::move(rack), "a-host", "a-boot", 12'345, 3};
    }
    // The directory hears of the node.
    void deliver(const NodeAddress &node) {
        std::uint8_t endpoint[DS_ENDPOINT_IP_BYTES];
        ds_encode_endpoint(0x0a000001, 80, endpoint, sizeof endpoint);
        dsr_update_t update = {};
        update.operation = DSR_ADD;
        update.service_name = "nodes.heard";
        update.service_id = 1;
        update.instance = ";";
        update.scope = DS_SCOPE_SYSTEM;
        update.version = 1;
        update.ep_bytes = endpoint;
        update.ep_len = sizeof endpoint;
        events->received(node, update);
    }

    relay::Events *events = nullptr;
    relay::EngineStatus shown;
    std::map<NodeAddress, relay::NodeStatus> alive;
};

class NodesTest : public testing::Test {
  protected:
    NodesTest() {
        config.socket = "/none/ds.sock";
        config.node = own_node;
        config.relay.rack = "west";
        engine.shown.is_connected = true;
        server.emplace(loop, config, engine, sum, UniqueFd());
        replace_shared_server(&loop, &*server);
        client.emplace();
        client->hello();
    }
    void TearDown() override {
        client.reset();
        replace_shared_server(nullptr, nullptr);
        server.reset();
    }
    v1::Reply ask(const std::string &after = {}) {
        v1::Request request;
        request.mutable_nodes()->set_after(after);
        return client->call(request);
    }
    v1::Node told_of(const NodeAddress &node) {
        const v1::Reply reply = ask();
        for (const v1::Node &one : reply.nodes().nodes())
            if (one.address() == bytes_of(node)) return one;
        return {};
    }

    Config config;
    PublicationSum sum;
    EngineWithNodes engine;
    Loop loop{shared_time_ns};
    std::optional<Server> server;
    std::optional<Client> client;
};

TEST_F(NodesTest, the_own_node_is_up_and_counts_its_publications) {
    client->call(publish_request("nodes.own", "a"));
    client->call(publish_request("nodes.own", "b"));
    client->call(publish_request("nodes.own", "b"));

    const v1::Node own = told_of(own_node);

    EXPECT_TRUE(own.local());
    EXPECT_EQ(own.state(), v1::NODE_STATE_UP);
    EXPECT_EQ(own.rack(), "west");
    EXPECT_FALSE(own.host_name().empty());
    EXPECT_GT(own.started_ns(), 0u);
    EXPECT_EQ(own.services(), 2u);
}

TEST_F(NodesTest, a_node_that_the_store_holds_is_up_though_it_published_nothing) {
    engine.add(node_of(1), "south");

    const v1::Node node = told_of(node_of(1));

    EXPECT_EQ(node.state(), v1::NODE_STATE_UP);
    EXPECT_FALSE(node.local());
    EXPECT_EQ(node.rack(), "south");
    EXPECT_EQ(node.host_name(), "a-host");
    EXPECT_EQ(node.started_ns(), 12'345u);
    EXPECT_EQ(node.services(), 3u);
}

TEST_F(NodesTest, a_node_that_the_store_holds_no_more_is_down) {
    engine.deliver(node_of(2));
    engine.events->node_down(node_of(2));

    const v1::Node node = told_of(node_of(2));

    EXPECT_EQ(node.state(), v1::NODE_STATE_DOWN);
    EXPECT_EQ(node.services_added(), 1u);
    EXPECT_EQ(node.times_down(), 1u);
    EXPECT_EQ(node.rack(), "");
}

TEST_F(NodesTest, while_the_relay_is_away_nobody_knows_of_other_nodes) {
    engine.add(node_of(3));
    engine.shown.is_connected = false;

    const v1::Node node = told_of(node_of(3));

    EXPECT_EQ(node.state(), v1::NODE_STATE_UNKNOWN);
    EXPECT_EQ(node.services(), 0u);
    EXPECT_EQ(told_of(own_node).state(), v1::NODE_STATE_UP);
}

TEST_F(NodesTest, pages_tell_every_node_once_and_in_order) {
    for (std::uint16_t number = 100; number < 900; number++)
        engine.add(node_of(number));
    for (std::uint16_t number = 95; number < 110; number++)
        engine.deliver(node_of(number));

    std::vector<std::string> addresses;
    std::size_t pages = 0;
    std::string after;
    do {
        const v1::NodesReply page = ask(after).nodes();
        for (const v1::Node &node : page.nodes())
            addresses.push_back(node.address());
        EXPECT_LE(page.nodes_size(), static_cast<int>(nodes_max));
        after = page.next();
        pages++;
    } while (!after.empty());

    EXPECT_TRUE(std::is_sorted(addresses.begin(), addresses.end()));
    EXPECT_EQ(std::adjacent_find(addresses.begin(), addresses.end()), addresses.end());
    for (std::uint16_t number = 95; number < 900; number++)
        EXPECT_TRUE(
            std::binary_search(addresses.begin(), addresses.end(), bytes_of(node_of(number))))
            << number;
    EXPECT_GE(pages, 4u);
}

TEST_F(NodesTest, an_address_of_another_length_is_refused) {
    const v1::Reply reply = ask("12345");

    EXPECT_EQ(reply.status(), v1::STATUS_INVALID);
    EXPECT_EQ(reply.text(), "after has 5 bytes; an Ethernet address has 6.");
}

TEST_F(NodesTest, the_status_tells_how_the_relay_is) {
    engine.shown.state = "connected";
    engine.shown.epoch = "an-epoch";
    engine.shown.revision = 77;
    engine.shown.echo_delay = {5, 900, 800, 1'200};
    engine.shown.repairs = 2;
    engine.shown.refusals = {{"a/key", "a reason"}};
    engine.shown.errors = {{"an error", 4, 99}};
    v1::Request request;
    request.mutable_status();

    const v1::StatusReply reply = client->call(request).status_info();

    EXPECT_EQ(reply.relay(), "scripted");
    const v1::RelayStatus &relay = reply.relay_status();
    EXPECT_EQ(relay.state(), "connected");
    EXPECT_TRUE(relay.connected());
    EXPECT_EQ(relay.epoch(), "an-epoch");
    EXPECT_EQ(relay.revision(), 77);
    EXPECT_EQ(relay.echo_p99_us(), 1'200u);
    EXPECT_EQ(relay.repairs(), 2u);
    EXPECT_EQ(relay.refusals(0).reason(), "a reason");
    EXPECT_EQ(relay.errors(0).count(), 4u);
}

} // namespace
} // namespace ds::host
