// Nodes come, go and quarrel.
#include "platform/dsr.h"
#include "relay/etcd/records.h"
#include "tests/relay/etcd_fixture.h"
#include "tests/relay/proxy.h"

using namespace relay_test;
using namespace std::chrono_literals;
using ds::relay::EtcdConfig;

namespace {

class etcd_life : public EtcdTest {
  protected:
    std::int64_t lease_of(std::uint8_t number) {
        return store().get(keys().node(node(number)))->lease;
    }
    // Stops the daemon and waits for the end of that.
    void stop(Daemon &daemon, bool keep_published) {
        bool is_done = false;
        daemon.engine->stop(keep_published, [&] { is_done = true; });
        EXPECT_TRUE(until([&] { return is_done; }));
    }
};

} // namespace

TEST_F(etcd_life, of_a_node_whose_lease_was_lost_begins_anew_with_all_it_published) {
    const auto one = join(1);
    const auto two = join(2);
    for (std::uint32_t id = 1; id <= 3; id++)
        one->directory.publish(update_of("s" + std::to_string(id), id));
    EXPECT_TRUE(sees(*two, "s1;@1v1 s2;@1v1 s3;@1v1"));

    store().call("/v3/lease/revoke", etcd::encode_lease(lease_of(1)));

    EXPECT_TRUE(until([&] { return two->directory.count("down 1") == 1; }));
    EXPECT_TRUE(sees(*two, "s1;@1v1 s2;@1v1 s3;@1v1"));
    EXPECT_EQ(one->directory.events(), "connected; listed");
    EXPECT_EQ(one->engine->status().leases_lost, 1u);
}

TEST_F(etcd_life, only_the_node_key_hangs_on_the_lease) {
    const auto one = join(1);
    one->directory.publish(update_of("web", 1));
    EXPECT_TRUE(is_written(*one));

    EXPECT_NE(lease_of(1), 0);
    for (const auto &item : store().range(etcd::range_of("/ds/v1/test/")))
        EXPECT_EQ(item.lease != 0, item.key == keys().node(node(1))) << item.key;
}

TEST_F(etcd_life, of_a_second_daemon_with_the_same_address_is_refused_with_a_clear_text) {
    const auto first = join(1);
    first->directory.publish(update_of("web", 1));
    const auto begun = std::chrono::steady_clock::now();
    const auto second = launch(config(1));

    EXPECT_TRUE(
        until([&] { return second->engine->status().state == "waiting for the node key"; }));
    EXPECT_TRUE(until([&] { return !second->fatal.empty(); }));

    EXPECT_NE(second->fatal.find("02:00:00:00:00:01 is used by another daemon"), std::string::npos);
    EXPECT_NE(second->fatal.find(first->config.boot_id), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, first->config.ttl + 5s);
    EXPECT_EQ(second->directory.events(), "");
    EXPECT_EQ(second->engine->status().state, "refused: address taken");
    EXPECT_EQ(first->directory.events(), "connected; listed");
    EXPECT_TRUE(audits(*first, 2)); // untouched
}

TEST_F(etcd_life, of_a_killed_daemon_is_continued_by_the_next_one_when_its_lease_has_ended) {
    const auto other = join(2);
    auto first = join(1);
    first->directory.publish(update_of("web", 1));
    EXPECT_TRUE(sees(*other, "web;@1v1"));
    first->engine.reset();

    const auto next = launch(config(1)); // knows nothing of its predecessor

    EXPECT_TRUE(until([&] { return next->directory.is_listed(); }));
    EXPECT_EQ(next->fatal, "");
    EXPECT_TRUE(sees(*other, "")); // which may hear of it later
    EXPECT_EQ(other->directory.count("down 1"), 1u);
}

TEST_F(etcd_life, of_a_daemon_that_was_replaced_ends_without_overwriting_its_successor) {
    const auto stale = join(1);
    stale->directory.publish(update_of("web", 1));
    EXPECT_TRUE(is_written(*stale));
    const std::int64_t lease = store().grant(60);
    const std::string successor = etcd::encode_node({"successor", "default", "h", 1, 1});
    store().put(keys().node(node(1)), successor, lease);
    const std::int64_t revision = store().revision();

    stale->directory.publish(update_of("web", 1, 2));
    stale->directory.publish(update_of("db", 2));

    EXPECT_TRUE(until([&] { return stale->engine->status().state == "waiting for the node key"; }));
    EXPECT_FALSE(store().get(keys().entry(node(1), update_of("db", 2))).has_value());
    EXPECT_LE(store().get(keys().entry(node(1), update_of("web", 1)))->mod_revision, revision);
    EXPECT_EQ(store().get(keys().node(node(1)))->value, successor);
}

TEST_F(etcd_life, ends_with_a_stop_that_leaves_nothing_behind) {
    const auto one = join(1);
    const auto two = join(2);
    one->directory.publish(update_of("web", 1));
    EXPECT_TRUE(sees(*two, "web;@1v1"));
    one->directory.publish(update_of("last", 2)); // is still written, then withdrawn

    stop(*one, false);

    EXPECT_TRUE(until([&] { return two->directory.count("down 1") == 1; }, 2s)); // not the TTL
    EXPECT_EQ(two->directory.seen(), "");
    EXPECT_FALSE(store().get(keys().node(node(1))).has_value());
    EXPECT_TRUE(store().range(keys().system_entries_of(node(1))).empty());
    EXPECT_EQ(one->engine->status().state, "stopped");
}

TEST_F(etcd_life, continues_over_a_planned_restart_unnoticed) {
    const auto two = join(2);
    auto before = join(1);
    before->directory.publish(update_of("web", 1));
    before->directory.publish(update_of("last", 2));
    stop(*before, true);
    EXPECT_TRUE(sees(*two, "last;@1v1 web;@1v1"));

    EtcdConfig successor = config(1);
    successor.predecessor_boot_id = before->config.boot_id;
    const auto after = std::make_unique<Daemon>(node(1));
    after->config = successor;
    after->directory.is_own_period_open = true;
    start(*after);
    EXPECT_TRUE(until([&] { return after->directory.is_listed(); }));
    EXPECT_EQ(after->directory.replayed(), "last web");
    after->directory.publish(update_of("web", 1, 2));
    after->directory.end_own_period();

    EXPECT_TRUE(sees(*two, "web;@1v2"));
    EXPECT_EQ(two->directory.count("down 1"), 0u);
}

TEST_F(etcd_life, moves_to_another_rack_without_leaving_services_in_the_old_one) {
    EtcdConfig in_a = config(1), watcher = config(2);
    in_a.rack = watcher.rack = "a";
    const auto near = join(watcher);
    auto before = join(in_a);
    ds::relay::Update update = update_of("web", 1);
    update.scope = DSR_SCOPE_RACK;
    before->directory.publish(update);
    EXPECT_TRUE(sees(*near, "web;@1v1"));
    before->engine.reset();

    EtcdConfig in_b = config(1);
    in_b.rack = "b";
    in_b.predecessor_boot_id = in_a.boot_id;
    const auto after = join(in_b);

    EXPECT_TRUE(sees(*near, ""));
    EXPECT_TRUE(store().range(keys("a").rack_entries_of("a", node(1))).empty());
}

TEST_F(etcd_life, leaves_entries_of_dead_nodes_untold_and_removes_them) {
    const ds::relay::Update update = update_of("ghost", 1);
    store().put(keys().entry(node(9), update), etcd::encode_update(update));
    store().put(keys().probe(node(9)), "1");

    const auto one = join(1);

    EXPECT_TRUE(until([&] { return one->engine->status().cleanups > 0; }));
    EXPECT_TRUE(store().range(keys().system_entries_of(node(9))).empty());
    EXPECT_FALSE(store().get(keys().probe(node(9))).has_value());
    EXPECT_EQ(one->directory.take_updates(), "");
}

TEST_F(etcd_life, removes_what_the_last_node_of_another_rack_left) {
    const auto survivor = join(1);
    EtcdConfig elsewhere = config(2);
    elsewhere.rack = "b";
    auto last = join(elsewhere);
    ds::relay::Update update = update_of("web", 1);
    update.scope = DSR_SCOPE_RACK;
    last->directory.publish(update);
    const std::string key = keys("b").entry(node(2), update);
    EXPECT_TRUE(until([&] { return store().get(key).has_value(); }));

    last->engine.reset();

    EXPECT_TRUE(until([&] { return survivor->engine->status().cleanups > 0; }));
    EXPECT_FALSE(store().get(key).has_value());
}

TEST_F(etcd_life, does_not_remove_entries_of_a_node_that_came_back) {
    EtcdConfig slow = config(1);
    slow.cleanup_delay = 1s;
    const ds::relay::Update update = update_of("web", 1);
    store().put(keys().entry(node(9), update), etcd::encode_update(update));
    const auto one = join(slow);

    store().put(keys().node(node(9)), etcd::encode_node({"b", "default", "h", 1, 1}));
    EXPECT_TRUE(until([&] { return one->engine->status().nodes == 2; }));
    EXPECT_TRUE(audits(*one, 5));

    EXPECT_EQ(one->engine->status().cleanups, 0u);
    EXPECT_TRUE(store().get(keys().entry(node(9), update)).has_value());
    EXPECT_EQ(one->directory.seen(), ""); // written under no key, or under an earlier one
}

// A page takes half a second, ten of them more than the TTL of three.
TEST_F(etcd_life, goes_on_through_a_list_that_takes_longer_than_the_lease) {
    constexpr std::uint32_t services = 5'000;
    EtcdConfig calm = config(2);
    calm.audit_interval = 1h;
    const auto two = join(calm);
    for (std::uint32_t id = 1; id <= services; id++)
        two->directory.publish(update_of("s" + std::to_string(id), id));
    EXPECT_TRUE(is_written(*two));
    Proxy proxy(io, server().port());
    proxy.carry_down(300'000);
    EtcdConfig slow = config(1);
    slow.endpoints = {proxy.endpoint()};
    slow.call_deadline = 2500ms;

    const auto begun = std::chrono::steady_clock::now();
    const auto one = join(slow);
    proxy.carry_down(0);

    EXPECT_GT(std::chrono::steady_clock::now() - begun, slow.ttl);
    EXPECT_TRUE(audits(*one, 2));
    EXPECT_EQ(one->engine->status().sessions, 1u);
    EXPECT_EQ(one->engine->status().leases_lost, 0u);
    EXPECT_EQ(two->directory.count("down 1"), 0u);
}

TEST_F(etcd_life, is_shown_by_the_status) {
    const auto one = join(1);
    const auto two = join(2);
    one->directory.publish(update_of("web", 1));
    EXPECT_TRUE(sees(*two, "web;@1v1"));
    EXPECT_TRUE(until([&] { return one->engine->status().echo_delay.count > 0; }));

    const ds::relay::EngineStatus status = two->engine->status();

    EXPECT_EQ(status.state, "connected");
    EXPECT_EQ(status.version.substr(0, 2), "3.");
    EXPECT_EQ(status.endpoint, server().endpoint());
    EXPECT_TRUE(status.is_connected);
    EXPECT_EQ(status.nodes, 2u);
    const auto nodes = two->engine->nodes_behind({}, 5);
    ASSERT_EQ(nodes.size(), 1u); // the others
    EXPECT_EQ(nodes[0].address, node(1));
    EXPECT_EQ(nodes[0].host_name, "host-1");
    EXPECT_EQ(nodes[0].rack, "default");
    EXPECT_EQ(nodes[0].entries, 1u);
    EXPECT_GT(nodes[0].started_ns, 0u);
    EXPECT_TRUE(two->engine->nodes_behind(node(1), 5).empty());
    EXPECT_TRUE(two->engine->nodes_behind({}, 0).empty());
    EXPECT_GT(one->engine->status().echo_delay.last_us, 0u);
    EXPECT_GT(status.revision, 0);
    EXPECT_EQ(status.refused, 0u);
}
