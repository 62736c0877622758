// What the store holds against what is known of it: missed changes, foreign ones, and garbage.
#include "platform/dsr.h"
#include "relay/etcd/records.h"
#include "tests/relay/etcd_fixture.h"
#include "tests/relay/proxy.h"

using namespace relay_test;
using namespace std::chrono_literals;
using ds::relay::EtcdConfig;
using ds::relay::Update;

namespace {

class etcd_audit : public EtcdTest {
  protected:
    // A node without a daemon, and its entry.
    void plant(std::uint8_t number, const Update &update) {
        if (!store().get(keys().node(node(number))))
            store().put(keys().node(node(number)), etcd::encode_node({"b", "default", "h", 1, 1}));
        store().put(keys().entry(node(number), update), etcd::encode_update(update));
    }
    // No call takes too long, however busy the machine is.
    EtcdConfig unhurried(std::uint8_t number) {
        EtcdConfig result = config(number);
        result.ttl = 40s;
        result.call_deadline = 30s;
        return result;
    }
    std::string key_of(std::uint8_t number, const Update &update) {
        return keys().entry(node(number), update);
    }
};

} // namespace

TEST_F(etcd_audit, finds_a_deletion_that_was_never_told) {
    plant(9, update_of("kept", 1));
    plant(9, update_of("gone", 2));
    Proxy proxy(io, server().port());
    proxy.hold_after(1); // the calls go through, the watch has to wait
    EtcdConfig held = config(1);
    held.endpoints = {proxy.endpoint()};
    held.call_deadline = 2500ms;
    const auto one = join(held);
    EXPECT_EQ(one->directory.seen(), "gone;@9v1 kept;@9v1");

    // Between the list and the watch; the watch begins behind the compaction and is not cancelled.
    const std::int64_t deleted = store().remove({key_of(9, update_of("gone", 2)), {}});
    store().compact(deleted);
    proxy.release();

    EXPECT_TRUE(sees(*one, "kept;@9v1"));
    EXPECT_EQ(one->engine->status().repairs, 1u);
    EXPECT_EQ(one->directory.events(), "connected; listed");
}

TEST_F(etcd_audit, finds_nothing_while_many_write) {
    const auto one = join(unhurried(1));
    const auto two = join(unhurried(2));
    for (std::uint32_t version = 1; version <= 40; version++) {
        for (std::uint32_t id = 1; id <= 50; id++) {
            one->directory.publish(update_of("s" + std::to_string(id), id, version));
            two->directory.publish(update_of("s" + std::to_string(id), id, version));
        }
        EXPECT_TRUE(is_written(*one));
    }
    EXPECT_TRUE(audits(*one, 3));
    EXPECT_TRUE(audits(*two, 3));

    for (const Daemon *daemon : {one.get(), two.get()}) {
        EXPECT_EQ(daemon->engine->status().repairs, 0u);
        EXPECT_EQ(daemon->engine->status().sessions, 1u);
    }
}

TEST_F(etcd_audit, own_entries_that_another_changed_or_removed_are_set_right) {
    const auto one = join(1);
    const auto two = join(2);
    one->directory.publish(update_of("changed", 1));
    one->directory.publish(update_of("removed", 2));
    EXPECT_TRUE(sees(*two, "changed;@1v1 removed;@1v1"));
    const Update evil = update_of("changed", 1, 66);

    store().put(key_of(1, evil), etcd::encode_update(evil));
    store().remove({key_of(1, update_of("removed", 2)), {}});

    EXPECT_TRUE(until([&] { return one->engine->status().repairs == 2; }));
    EXPECT_TRUE(is_written(*one));
    EXPECT_TRUE(sees(*two, "changed;@1v1 removed;@1v1"));
}

TEST_F(etcd_audit, garbage_is_refused_named_and_never_told) {
    const auto one = join(unhurried(1));
    Update bad_pid = update_of("pid", 3);
    bad_pid.pid = 1;
    plant(9, update_of("good", 1));
    plant(9, bad_pid);
    const std::string mismatch = key_of(9, update_of("other", 4));
    store().put(mismatch, etcd::encode_update(update_of("name", 4)));
    store().put(key_of(9, update_of("noise", 5)), "\xff\xfe");
    store().put("/ds/v1/test/system/nonsense", "x");
    store().put("/ds/v1/test/nodes/nonsense", "x");
    store().put(keys().node(node(8)), "\xff");

    EXPECT_TRUE(until([&] { return one->engine->status().refused >= 6; }));
    EXPECT_TRUE(sees(*one, "good;@9v1"));
    EXPECT_TRUE(audits(*one, 3));
    const auto status = one->engine->status();
    EXPECT_EQ(status.repairs, 0u); // refused is not missed
    EXPECT_EQ(status.sessions, 1u);
    const auto reason_of = [&](const std::string &key) {
        for (const auto &refusal : status.refusals)
            if (refusal.key == key) return refusal.reason;
        return std::string("not refused");
    };
    EXPECT_EQ(reason_of(key_of(9, bad_pid)), "process id is 0 or 1");
    EXPECT_EQ(reason_of(mismatch), "record does not agree with its key");
    EXPECT_EQ(reason_of("/ds/v1/test/system/nonsense"), "key is not of any known form");
    EXPECT_EQ(one->directory.take_updates(), "add good v1");
}

TEST_F(etcd_audit, updates_that_no_node_would_accept_are_not_sent) {
    const auto one = join(1);
    Update update = update_of("bad;name", 1);

    EXPECT_EQ(one->engine->send(update.borrowed()), -1);
    update = update_of("web", 1);
    update.pid = 0;
    EXPECT_EQ(one->engine->send(update.borrowed()), -1);

    EXPECT_EQ(one->engine->status().refused, 2u);
    EXPECT_EQ(one->engine->status().refusals.at(0).reason, "not sent: name holds ';'");
    EXPECT_EQ(one->engine->status().waiting, 0u);
}

TEST_F(etcd_audit, a_changed_epoch_makes_a_new_list) {
    const auto one = join(1);
    plant(9, update_of("web", 1));
    EXPECT_TRUE(sees(*one, "web;@9v1"));

    store().put(keys().epoch(), "another");

    EXPECT_TRUE(until([&] { return one->engine->status().epoch == "another"; }));
    EXPECT_EQ(one->engine->status().epoch_changes, 1u);
    EXPECT_TRUE(sees(*one, "web;@9v1"));
    EXPECT_EQ(one->directory.events(), "connected; listed");
}

TEST_F(etcd_audit, what_one_turn_sends_leaves_in_few_transactions) {
    const auto one = join(unhurried(1));
    const auto two = join(unhurried(2));
    constexpr std::uint32_t count = 5'000;

    for (std::uint32_t id = 1; id <= count; id++)
        one->directory.publish(update_of("s" + std::to_string(id % 100), id));
    EXPECT_TRUE(is_written(*one));

    for (const auto &error : one->engine->status().errors)
        ADD_FAILURE() << error.text;
    EXPECT_EQ(one->engine->status().operations, count);
    EXPECT_EQ(one->engine->status().writes, (count + 127) / 128);
    EXPECT_TRUE(until([&] {
        const auto nodes = two->engine->nodes_behind({}, 1);
        return nodes.size() == 1 && nodes[0].entries == count;
    }));
}
