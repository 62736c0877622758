// What every engine promises (relay/engine.h), tried on each.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "tests/relay/rig.h"
#include "tests/relay/updates.h"

using namespace relay_test;
using ds::relay::Update;

namespace {

class engine : public testing::TestWithParam<RigFactory> {
  protected:
    void TearDown() override { rig.reset(); }

    DirectoryDouble &launch(std::uint8_t number, const std::string &rack = "default") {
        if (!directories[number])
            directories[number] = std::make_unique<DirectoryDouble>(node(number));
        rig->make_engine(number, rack, *directories[number]);
        rig->engine(number).start(*directories[number]);
        return *directories[number];
    }
    DirectoryDouble &join(std::uint8_t number, const std::string &rack = "default") {
        DirectoryDouble &directory = launch(number, rack);
        EXPECT_TRUE(rig->until([&] { return directory.is_listed(); }));
        return directory;
    }
    // The directory of a daemon that was killed is gone with it.
    void forget(std::uint8_t number) { ended.push_back(std::move(directories[number])); }
    testing::AssertionResult sees(DirectoryDouble &directory, const std::string &services) {
        if (rig->until([&] { return directory.seen() == services; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "sees '" << directory.seen() << "'" << rig->describe();
    }

    std::map<std::uint8_t, std::unique_ptr<DirectoryDouble>> directories;
    std::vector<std::unique_ptr<DirectoryDouble>> ended;
    std::unique_ptr<Rig> rig = GetParam().make();
};

Update rack_update(const std::string &name, std::uint32_t id) {
    Update update = update_of(name, id);
    update.scope = DSR_SCOPE_RACK;
    return update;
}

} // namespace

TEST_P(engine, reports_a_connection_and_an_empty_list_from_an_empty_store) {
    DirectoryDouble &one = join(1);

    EXPECT_EQ(one.events(), "connected; listed");
    EXPECT_EQ(one.seen(), "");
    EXPECT_TRUE(rig->engine(1).is_replicating());
}

TEST_P(engine, reports_nothing_from_within_start_and_send) {
    DirectoryDouble &one = join(1);
    DirectoryDouble two(node(2));
    rig->make_engine(2, "default", two);

    rig->engine(2).start(two);
    EXPECT_EQ(two.events(), "");
    EXPECT_TRUE(rig->until([&] { return two.is_listed(); }));
    two.publish(update_of("web", 1));
    EXPECT_EQ(one.seen(), "");

    EXPECT_TRUE(sees(one, "web;@2v1"));
}

TEST_P(engine, takes_nothing_before_it_has_reported_a_connection) {
    DirectoryDouble one(node(1));
    rig->make_engine(1, "default", one);
    const Update update = update_of("web", 1);

    EXPECT_EQ(rig->engine(1).send(update.borrowed()), -1);
    rig->engine(1).start(one);
    EXPECT_EQ(rig->engine(1).send(update.borrowed()), -1);
    EXPECT_TRUE(rig->until([&] { return one.is_listed(); }));
    EXPECT_EQ(rig->engine(1).send(update.borrowed()), 0);
}

TEST_P(engine, carries_publications_changes_and_withdrawals) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);

    one.publish(update_of("web", 1));
    EXPECT_TRUE(sees(two, "web;@1v1"));
    one.publish(update_of("web", 1, 2));
    EXPECT_TRUE(sees(two, "web;@1v2"));
    one.withdraw("web", 1);
    EXPECT_TRUE(sees(two, ""));

    EXPECT_EQ(two.take_updates(), "add web v1; modify web v2; delete web v2");
}

TEST_P(engine, carries_every_field_of_an_update) {
    struct Catcher final : ds::relay::Events {
        void connected() override {}
        void disconnected() override {}
        void listed() override { is_listed = true; }
        void node_down(const ds::relay::NodeAddress &) override {}
        void received(const ds::relay::NodeAddress &, const dsr_update_t &update) override {
            updates.push_back(Update::copy_of(update));
        }
        bool is_listed = false;
        std::vector<Update> updates;
    } catcher;
    DirectoryDouble &one = join(1);
    DirectoryDouble unused(node(2));
    rig->make_engine(2, "default", unused);
    rig->engine(2).start(catcher);
    ASSERT_TRUE(rig->until([&] { return catcher.is_listed; }));
    Update full = update_of("\xc3\xa4 name", 0xfffffffe, 0xfffffffd);
    full.instance = "node1;";
    full.pid = 0xfffffffc;
    full.attributes = std::string("\0\xff\n", 3);
    Update bare = update_of("bare", 2);
    bare.instance.reset();

    one.publish(full);
    one.publish(bare);

    ASSERT_TRUE(rig->until([&] { return catcher.updates.size() == 2; }));
    for (const Update &expected : {full, bare})
        EXPECT_EQ(std::ranges::count(catcher.updates, expected), 1) << expected.name;
}

TEST_P(engine, keeps_rack_services_within_their_rack) {
    DirectoryDouble &one = join(1, "default");
    DirectoryDouble &near = join(2, "default");
    DirectoryDouble &far = join(3, "other");

    one.publish(rack_update("near", 1));
    one.publish(update_of("wide", 2));

    EXPECT_TRUE(sees(near, "near;@1v1 wide;@1v1"));
    EXPECT_TRUE(sees(far, "wide;@1v1"));
    EXPECT_TRUE(rig->settle());
    EXPECT_EQ(far.seen(), "wide;@1v1");
}

TEST_P(engine, never_gives_a_node_its_own_live_updates) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);

    one.publish(update_of("web", 1));
    one.publish(update_of("web", 1, 2));
    EXPECT_TRUE(sees(two, "web;@1v2"));
    one.withdraw("web", 1);
    EXPECT_TRUE(sees(two, ""));
    EXPECT_TRUE(rig->settle());

    EXPECT_EQ(one.bounces(), 0);
    EXPECT_EQ(one.take_updates(), "");
}

TEST_P(engine, gives_a_late_node_the_list_before_it_says_listed) {
    DirectoryDouble &one = join(1);
    for (std::uint32_t id = 1; id <= 700; id++) // more than a page
        one.publish(update_of("s" + std::to_string(1000 + id), id));
    EXPECT_TRUE(rig->settle());

    DirectoryDouble &two = launch(2);
    std::size_t at_listing = 0;
    EXPECT_TRUE(rig->until([&] {
        if (two.is_listed() && at_listing == 0) at_listing = two.versions("s1700").size();
        return two.is_listed();
    }));

    EXPECT_EQ(at_listing, 1u);
    EXPECT_EQ(std::ranges::count(two.seen(), '@'), 700);
}

TEST_P(engine, reports_a_dead_node_once_with_all_it_published) {
    DirectoryDouble &one = join(1);
    join(2).publish(update_of("web", 1));
    directories[2]->publish(update_of("db", 2));
    EXPECT_TRUE(sees(one, "db;@2v1 web;@2v1"));

    rig->kill(2);

    EXPECT_TRUE(rig->until([&] { return one.count("down 2") == 1; }));
    EXPECT_EQ(one.seen(), "");
    EXPECT_TRUE(rig->until([&] { return !rig->holds(2, "web", 1) && !rig->holds(2, "db", 2); }));
    EXPECT_TRUE(rig->settle());
    EXPECT_EQ(one.count("down 2"), 1u);
}

TEST_P(engine, brings_all_nodes_to_the_same_state_after_an_outage) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);
    one.publish(update_of("kept", 1));
    one.publish(update_of("ended", 2));
    EXPECT_TRUE(sees(two, "ended;@1v1 kept;@1v1"));

    rig->begin_outage();
    EXPECT_TRUE(rig->until([&] { return !one.is_connected() && !two.is_connected(); }));
    one.withdraw("ended", 2);
    one.publish(update_of("kept", 1, 2));
    one.publish(update_of("new", 3));
    EXPECT_EQ(two.seen(), "ended;@1v1 kept;@1v1");
    rig->end_outage();

    EXPECT_TRUE(rig->until([&] { return one.is_listed() && two.is_listed(); }));
    EXPECT_TRUE(sees(two, "kept;@1v2 new;@1v1"));
    EXPECT_EQ(two.events(), "connected; listed; disconnected; connected; listed");
    EXPECT_EQ(one.bounces(), 1); // what ended meanwhile was still in the store
}

TEST_P(engine, fills_a_store_again_that_has_lost_everything) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);
    one.publish(update_of("web", 1));
    two.publish(update_of("db", 1));
    EXPECT_TRUE(sees(one, "db;@2v1"));
    EXPECT_TRUE(sees(two, "web;@1v1"));

    rig->wipe();

    EXPECT_TRUE(rig->until([&] { return rig->holds(1, "web", 1) && rig->holds(2, "db", 1); }));
    DirectoryDouble &three = join(3);
    EXPECT_TRUE(sees(three, "web;@1v1 db;@2v1"));
    EXPECT_TRUE(sees(one, "db;@2v1"));
    EXPECT_TRUE(sees(two, "web;@1v1"));
}

TEST_P(engine, has_stale_own_entries_removed_by_the_directory) {
    rig->plant(1, update_of("stale", 9, 3));
    rig->plant(1, update_of("kept", 8, 3));
    directories[1] = std::make_unique<DirectoryDouble>(node(1));
    directories[1]->publish(update_of("kept", 8, 1));

    DirectoryDouble &one = join(1);

    EXPECT_TRUE(rig->until([&] { return !rig->holds(1, "stale", 9); }));
    EXPECT_EQ(one.bounces(), 1);
    EXPECT_TRUE(rig->settle());
    EXPECT_TRUE(rig->holds(1, "kept", 8));
}

TEST_P(engine, replays_own_entries_in_the_restart_period) {
    DirectoryDouble &two = join(2);
    DirectoryDouble &before = join(1);
    before.publish(update_of("back", 1));
    before.publish(update_of("lost", 2));
    EXPECT_TRUE(sees(two, "back;@1v1 lost;@1v1"));
    rig->kill_for_restart(1);
    forget(1);
    directories[1] = std::make_unique<DirectoryDouble>(node(1));
    DirectoryDouble &one = *directories[1];
    one.is_own_period_open = true;

    join(1);
    EXPECT_EQ(one.replayed(), "back lost");
    one.publish(update_of("back", 1, 2));
    EXPECT_EQ(two.seen(), "back;@1v1 lost;@1v1"); // the restart was not noticed
    one.end_own_period();

    EXPECT_TRUE(sees(two, "back;@1v2"));
    EXPECT_EQ(two.count("down 1"), 0u);
    EXPECT_EQ(one.bounces(), 0);
}

TEST_P(engine, keeps_the_service_that_was_given_the_id_of_an_earlier_one) {
    DirectoryDouble &two = join(2);
    join(1).publish(update_of("web", 5));
    EXPECT_TRUE(sees(two, "web;@1v1"));
    rig->kill_for_restart(1);
    forget(1);
    directories[1] = std::make_unique<DirectoryDouble>(node(1));
    DirectoryDouble &one = *directories[1];
    one.is_own_period_open = true;
    join(1);

    // The same process id, so the same first service id; the new name is sent first.
    one.publish(update_of("db", 5));
    one.end_own_period();

    EXPECT_TRUE(sees(two, "db;@1v1"));
    EXPECT_TRUE(rig->settle());
    EXPECT_EQ(two.seen(), "db;@1v1");
    EXPECT_TRUE(rig->holds(1, "db", 5));
    EXPECT_FALSE(rig->holds(1, "web", 5));
}

TEST_P(engine, keeps_two_live_services_with_one_id_apart) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);
    one.publish(update_of("web", 5));
    one.publish(update_of("db", 5));
    EXPECT_TRUE(sees(two, "db;@1v1 web;@1v1"));

    one.withdraw("web", 5);

    EXPECT_TRUE(sees(two, "db;@1v1"));
}

TEST_P(engine, tells_a_service_of_another_process_anew) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);
    one.publish(update_of("web", 1));
    EXPECT_TRUE(sees(two, "web;@1v1"));
    Update moved = update_of("web", 1, 2);
    moved.pid = 78;

    one.publish(moved);

    EXPECT_TRUE(sees(two, "web;@1v2"));
    EXPECT_EQ(two.take_updates(), "add web v1; delete web v1; add web v2");
}

TEST_P(engine, delivers_the_updates_of_one_service_in_their_order) {
    DirectoryDouble &one = join(1);
    DirectoryDouble &two = join(2);
    for (std::uint32_t version = 1; version <= 500; version++) {
        one.publish(update_of("web", 1, version));
        if (version % 50 == 0) {
            EXPECT_TRUE(sees(two, "web;@1v" + std::to_string(version)));
        }
    }

    const auto versions = two.versions("web");
    EXPECT_TRUE(std::ranges::is_sorted(versions));
    EXPECT_EQ(versions.back(), 500u);
}

TEST_P(engine, brings_nodes_together_that_change_at_random) {
    std::mt19937 random(20'250'101);
    const auto pick = [&](std::uint32_t bound) {
        return static_cast<std::uint32_t>(random() % bound);
    };
    for (std::uint8_t number = 1; number <= 3; number++)
        join(number);
    std::map<std::pair<std::uint8_t, std::uint32_t>, std::uint32_t> live; // versions
    for (int step = 0; step < 600; step++) {
        const auto number = static_cast<std::uint8_t>(1 + pick(3));
        const std::uint32_t id = 1 + pick(20);
        const std::string name = "s" + std::to_string(10 + id);
        const std::pair key = {number, id};
        if (live.contains(key) && pick(3) == 0) {
            directories[number]->withdraw(name, id);
            live.erase(key);
        } else {
            directories[number]->publish(update_of(name, id, ++live[key]));
        }
        if (pick(60) == 0) {
            EXPECT_TRUE(rig->settle());
        }
    }

    EXPECT_TRUE(rig->settle());
    for (std::uint8_t reader = 1; reader <= 3; reader++) {
        std::string expected;
        for (const auto &[key, version] : live)
            if (key.first != reader)
                expected += (expected.empty() ? "" : " ") +
                            ("s" + std::to_string(10 + key.second)) + ";@" +
                            std::to_string(key.first) + "v" + std::to_string(version);
        EXPECT_TRUE(sees(*directories[reader], expected)) << "expected " << expected;
    }
}

INSTANTIATE_TEST_SUITE_P(contract, engine,
                         testing::Values(RigFactory{"fake", make_fake_rig},
                                         RigFactory{"etcd", make_etcd_rig}),
                         [](const auto &instance) { return instance.param.name; });
