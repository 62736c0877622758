// What the engine for tests promises its test beyond the contract.
#include "relay/fake/fake_engine.h"

#include <gtest/gtest.h>

#include "tests/relay/directory_double.h"
#include "tests/relay/updates.h"

using namespace relay_test;
using ds::relay::FakeEngine;
using ds::relay::FakeStore;

namespace {

class fake_engine : public testing::Test {
  protected:
    void SetUp() override {
        directory.use(&engine);
        engine.start(directory);
    }

    FakeStore store;
    FakeEngine engine{store, node(1)};
    DirectoryDouble directory{node(1)};
};

} // namespace

TEST_F(fake_engine, takes_one_step_at_a_time) {
    EXPECT_TRUE(engine.turn());
    EXPECT_FALSE(engine.turn());

    EXPECT_EQ(directory.events(), "connected; listed");
}

TEST_F(fake_engine, says_when_there_is_a_step_to_take) {
    store.settle();
    int calls = 0;
    engine.on_pending = [&] { calls++; };
    store.node_comes(node(9), "default");

    store.apply(node(9), update_of("web", 1));
    store.apply(node(9), update_of("db", 2));

    EXPECT_EQ(calls, 1); // the second step waits behind the first
    store.settle();
    EXPECT_EQ(directory.seen(), "db;@9v1 web;@9v1");
}

TEST_F(fake_engine, plays_nodes_that_have_no_engine) {
    store.node_comes(node(9), "default");
    store.apply(node(9), update_of("web", 1));
    store.settle();

    store.node_goes(node(9));
    store.node_goes(node(9));
    store.settle();

    EXPECT_EQ(directory.seen(), "");
    EXPECT_EQ(directory.count("down 9"), 1u);
}

TEST_F(fake_engine, keeps_a_transcript_of_what_was_sent) {
    store.settle();
    directory.publish(update_of("web", 1));
    directory.withdraw("web", 1);

    ASSERT_EQ(engine.sent().size(), 2u);
    EXPECT_EQ(engine.sent()[0].operation, DSR_ADD);
    EXPECT_EQ(engine.sent()[1].operation, DSR_DELETE);
}
