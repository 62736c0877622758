// The store goes away and comes back.
#include "platform/dsr.h"
#include "tests/relay/etcd_fixture.h"
#include "tests/relay/proxy.h"

using namespace relay_test;
using namespace std::chrono_literals;
using ds::relay::EtcdConfig;
using ds::relay::OnOutage;

namespace {

class etcd_outage : public EtcdTest {
  protected:
    // An outage is reported almost at once.
    EtcdConfig hasty(std::uint8_t number) {
        EtcdConfig result = config(number);
        result.outage_grace = 200ms;
        return result;
    }
};

} // namespace

TEST_F(etcd_outage, shorter_than_the_grace_is_not_reported) {
    EtcdConfig patient = config(1);
    patient.outage_grace = 30s;
    const auto one = join(patient);
    patient.node = node(2);
    patient.boot_id = "two";
    const auto two = join(patient);

    server().kill();
    one->directory.publish(update_of("web", 1)); // taken, and written later
    EXPECT_TRUE(until([&] { return one->engine->status().state != "connected"; }));
    EXPECT_EQ(one->engine->status().state, "reconnecting, outage not reported");
    server().start();

    EXPECT_TRUE(sees(*two, "web;@1v1"));
    EXPECT_EQ(one->directory.events(), "connected; listed");
    EXPECT_EQ(two->directory.events(), "connected; listed");
    EXPECT_EQ(one->engine->status().outages, 0u);
}

TEST_F(etcd_outage, is_reported_once_and_ended_by_a_new_list) {
    const auto one = join(hasty(1));

    server().kill();
    EXPECT_TRUE(until([&] { return one->directory.count("disconnected") == 1; }));
    EXPECT_EQ(one->engine->status().state, "connecting");
    EXPECT_EQ(one->engine->send(update_of("web", 1).borrowed()), -1);
    server().start();

    EXPECT_TRUE(until([&] { return one->directory.is_listed(); }));
    EXPECT_EQ(one->directory.events(), "connected; listed; disconnected; connected; listed");
    EXPECT_EQ(one->engine->status().outages, 1u);
    EXPECT_FALSE(one->engine->status().errors.empty());
}

TEST_F(etcd_outage, that_is_held_leaves_the_directory_alone_and_ends_in_the_difference) {
    Proxy proxy(io, server().port());
    EtcdConfig holding = config(1);
    holding.endpoints = {proxy.endpoint()};
    holding.on_outage = OnOutage::hold;
    const auto one = join(holding);
    const auto two = join(2);
    two->directory.publish(update_of("gone", 1));
    two->directory.publish(update_of("changed", 2));
    two->directory.publish(update_of("same", 3));
    one->directory.publish(update_of("mine", 4));
    one->directory.publish(update_of("ended", 5));
    EXPECT_TRUE(sees(*one, "changed;@2v1 gone;@2v1 same;@2v1"));
    EXPECT_TRUE(sees(*two, "ended;@1v1 mine;@1v1"));
    one->directory.take_updates();

    proxy.cut();
    EXPECT_TRUE(until([&] { return one->engine->status().state != "connected"; }));
    two->directory.withdraw("gone", 1);
    two->directory.publish(update_of("changed", 2, 2));
    one->directory.publish(update_of("mine", 4, 2));
    one->directory.withdraw("ended", 5);
    // Longer than the lease: for the others this node is down.
    EXPECT_TRUE(until([&] { return two->directory.count("down 1") == 1; }));
    EXPECT_TRUE(is_written(*two));
    EXPECT_EQ(one->directory.seen(), "changed;@2v1 gone;@2v1 same;@2v1");
    proxy.heal();

    EXPECT_TRUE(sees(*one, "changed;@2v2 same;@2v1"));
    EXPECT_TRUE(sees(*two, "mine;@1v2"));
    EXPECT_EQ(one->directory.take_updates(), "delete gone v1; modify changed v2");
    EXPECT_EQ(one->directory.events(), "connected; listed");
}

TEST_F(etcd_outage, of_a_frozen_server_is_noticed_though_connections_stay_open) {
    const auto one = join(hasty(1));
    const auto two = join(hasty(2));
    two->directory.publish(update_of("web", 1));
    EXPECT_TRUE(sees(*one, "web;@2v1"));

    server().freeze();
    EXPECT_TRUE(until([&] { return one->directory.count("disconnected") == 1; }));
    EXPECT_EQ(one->directory.seen(), "web;@2v1");
    server().thaw();

    EXPECT_TRUE(until([&] { return one->directory.is_listed() && two->directory.is_listed(); }));
    EXPECT_TRUE(sees(*one, "web;@2v1"));
}

TEST_F(etcd_outage, with_a_compaction_meanwhile_ends_in_the_right_state) {
    Proxy proxy(io, server().port());
    EtcdConfig cut_off = config(1);
    cut_off.endpoints = {proxy.endpoint()};
    cut_off.outage_grace = 30s;
    cut_off.ttl = 30s;
    const auto one = join(cut_off);
    const auto two = join(2);
    two->directory.publish(update_of("gone", 1));
    two->directory.publish(update_of("kept", 2));
    EXPECT_TRUE(sees(*one, "gone;@2v1 kept;@2v1"));

    proxy.cut();
    EXPECT_TRUE(until([&] { return one->engine->status().state != "connected"; }));
    two->directory.withdraw("gone", 1);
    EXPECT_TRUE(is_written(*two));
    store().compact(store().revision());
    proxy.heal();

    EXPECT_TRUE(sees(*one, "kept;@2v1"));
    EXPECT_EQ(one->directory.events(), "connected; listed");
}

TEST_F(etcd_outage, with_a_wiped_store_is_seen_by_its_epoch) {
    EtcdConfig patient = config(1);
    patient.outage_grace = 30s;
    const auto one = join(patient);
    one->directory.publish(update_of("web", 1));
    EXPECT_TRUE(is_written(*one));
    const std::string epoch = one->engine->status().epoch;

    server().kill();
    server().wipe();
    server().start();

    EXPECT_TRUE(until([&] { return one->engine->status().epoch_changes == 1; }));
    EXPECT_TRUE(audits(*one, 2));
    EXPECT_NE(one->engine->status().epoch, epoch);
    EXPECT_TRUE(store().get(keys().entry(node(1), update_of("web", 1))).has_value());
    EXPECT_EQ(one->directory.events(), "connected; listed");
}

TEST_F(etcd_outage, does_not_make_what_the_store_still_holds_be_written_again) {
    const auto one = join(hasty(1));
    one->directory.publish(update_of("web", 1));
    EXPECT_TRUE(is_written(*one));
    const std::string key = keys().entry(node(1), update_of("web", 1));
    const std::int64_t before = store().get(key)->mod_revision;
    const std::uint64_t writes = one->engine->status().writes;

    server().kill();
    EXPECT_TRUE(until([&] { return one->directory.count("disconnected") == 1; }));
    server().start();
    EXPECT_TRUE(until([&] { return one->directory.is_listed(); }));
    EXPECT_TRUE(audits(*one, 2));

    EXPECT_EQ(store().get(key)->mod_revision, before);
    EXPECT_EQ(one->engine->status().writes, writes);
}

TEST_F(etcd_outage, of_one_member_of_three_is_not_noticed_by_the_directory) {
    EtcdCluster cluster;
    EtcdConfig first = quick_config(1, cluster.endpoints());
    first.outage_grace = 20s;
    first.ttl = 10s;
    EtcdConfig second = first;
    second.node = node(2);
    second.boot_id = "second";
    const auto one = join(first);
    const auto two = join(second);
    one->directory.publish(update_of("before", 1));
    EXPECT_TRUE(sees(*two, "before;@1v1"));
    const std::string endpoint = one->engine->status().endpoint;

    cluster.member(0).kill();
    one->directory.publish(update_of("after", 2));

    EXPECT_TRUE(sees(*two, "after;@1v1 before;@1v1"));
    EXPECT_EQ(endpoint, cluster.member(0).endpoint());
    EXPECT_NE(one->engine->status().endpoint, endpoint);
    EXPECT_EQ(two->directory.events(), "connected; listed");
}
