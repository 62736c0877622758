#include <gtest/gtest.h>

#include "relay/etcd/view.h"

#include "tests/relay/updates.h"

using namespace ds::relay;
using namespace ds::relay::etcd;
using relay_test::node;
using relay_test::update_of;

namespace {

// Writes down what it is told.
class Transcript final : public Events {
  public:
    void connected() override { add("connected"); }
    void disconnected() override { add("disconnected"); }
    void listed() override { add("listed"); }
    void received(const NodeAddress &sender, const dsr_update_t &update) override {
        const char *operations[] = {"?", "add", "modify", "delete"};
        add(std::string(operations[update.operation]) + " " + update.service_name + "@" +
            std::to_string(sender[5]) + " v" + std::to_string(update.version));
    }
    void node_down(const NodeAddress &gone) override { add("down " + std::to_string(gone[5])); }

    std::string take() { return std::exchange(text_, {}); }

  private:
    void add(const std::string &line) { text_ += (text_.empty() ? "" : "; ") + line; }
    std::string text_;
};

class view : public testing::Test {
  protected:
    static constexpr std::size_t room_for_two = 250;

    KeyValue node_item(std::uint8_t last, std::int64_t created, std::int64_t modified,
                       const std::string &rack = "r1") {
        return {keys.node(node(last)), encode_node({"boot", rack, "host", 1, 1}), created, modified,
                5};
    }
    KeyValue entry_item(std::uint8_t last, const Update &update, std::int64_t modified) {
        return {keys.entry(node(last), update), encode_update(update), modified, modified, 0};
    }
    std::string key_of(std::uint8_t last, const Update &update) {
        return keys.entry(node(last), update);
    }

    Keys keys{"lab", "r1"};
    Journal journal;
    View directory_view{keys, {room_for_two, 100}, journal};
    Transcript told;
};

} // namespace

TEST_F(view, tells_entries_of_nodes_that_have_a_key) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);
    directory_view.put(entry_item(1, update_of("web", 1, 2), 12), told);
    directory_view.remove(key_of(1, update_of("web", 1)), 13, told);

    EXPECT_EQ(told.take(), "add web@1 v1; modify web@1 v2; delete web@1 v2");
}

TEST_F(view, holds_entries_back_until_their_node_has_a_key) {
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);
    EXPECT_EQ(told.take(), "");
    EXPECT_TRUE(directory_view.has_remains());

    directory_view.put(node_item(1, 10, 10), told);

    EXPECT_EQ(told.take(), "add web@1 v1");
    EXPECT_FALSE(directory_view.has_remains());
}

TEST_F(view, tells_the_end_of_a_node_once_and_not_its_entries) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);
    told.take();

    directory_view.remove(keys.node(node(1)), 12, told);
    directory_view.remove(keys.node(node(1)), 12, told);
    directory_view.remove(key_of(1, update_of("web", 1)), 13, told);

    EXPECT_EQ(told.take(), "down 1");
}

TEST_F(view, does_not_revive_what_was_written_under_an_earlier_node_key) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);
    directory_view.remove(keys.node(node(1)), 12, told);
    told.take();

    directory_view.put(node_item(1, 20, 20), told);
    EXPECT_EQ(told.take(), "");
    directory_view.put(entry_item(1, update_of("web", 1), 21), told);

    EXPECT_EQ(told.take(), "add web@1 v1");
}

TEST_F(view, keeps_entries_when_the_successor_takes_the_node_key_over) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);
    told.take();

    directory_view.put(node_item(1, 10, 30), told);

    EXPECT_EQ(told.take(), "");
}

TEST_F(view, ends_in_the_same_state_when_the_ranges_are_told_out_of_order) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);
    told.take();

    // In the store: the node goes at 20, comes back at 30 and writes at 31.
    directory_view.put(entry_item(1, update_of("web", 1, 2), 31), told);
    directory_view.remove(keys.node(node(1)), 20, told);
    directory_view.put(node_item(1, 30, 30), told);

    EXPECT_EQ(told.take(), "modify web@1 v2; down 1; add web@1 v2");
}

TEST_F(view, lets_no_older_state_follow_a_newer_one) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1, 5), 15), told);
    told.take();

    directory_view.put(entry_item(1, update_of("web", 1, 4), 14), told);
    directory_view.remove(key_of(1, update_of("web", 1)), 13, told);

    EXPECT_EQ(told.take(), "");
}

TEST_F(view, tells_another_process_id_as_a_deletion_and_an_addition) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(entry_item(1, update_of("web", 1, 3), 11), told);
    told.take();
    Update moved = update_of("web", 1, 4);
    moved.pid = 78;

    directory_view.put(entry_item(1, moved, 12), told);

    EXPECT_EQ(told.take(), "delete web@1 v3; add web@1 v4");
}

TEST_F(view, tells_only_the_difference_to_a_list) {
    directory_view.put(node_item(1, 10, 10), told);
    directory_view.put(node_item(2, 11, 11), told);
    directory_view.put(entry_item(1, update_of("same", 1), 12), told);
    directory_view.put(entry_item(1, update_of("gone", 2), 13), told);
    directory_view.put(entry_item(1, update_of("changed", 3), 14), told);
    directory_view.put(entry_item(2, update_of("lost", 4), 15), told);
    told.take();

    // Of a store that was wiped and filled again: its revisions are smaller.
    directory_view.replace({entry_item(1, update_of("changed", 3, 2), 5),
                            entry_item(1, update_of("same", 1), 4),
                            entry_item(1, update_of("new", 5), 6), node_item(1, 2, 2)},
                           told);

    EXPECT_EQ(told.take(), "down 2; delete gone@1 v1; modify changed@1 v2; add new@1 v1");
    EXPECT_EQ(directory_view.entry_count(), 3u);
}

TEST_F(view, tells_again_behind_a_list_what_changed_of_services_that_were_known) {
    Update kept = update_of("kept", 2), moved = update_of("moved", 3);
    directory_view.put(node_item(1, 10, 10), told);
    for (const Update &update : {update_of("changed", 1), kept, moved, update_of("gone", 4)})
        directory_view.put(entry_item(1, update, 11), told);
    const View::Told before = directory_view.clear();
    moved.endpoint += "x"; // another service to the directory
    directory_view.replace({node_item(1, 10, 10), entry_item(1, update_of("changed", 1, 2), 12),
                            entry_item(1, kept, 11), entry_item(1, moved, 12),
                            entry_item(1, update_of("new", 5), 12)},
                           told);
    told.take();

    directory_view.tell_changes_since(before, told);

    EXPECT_EQ(before.size(), 4u);
    EXPECT_EQ(told.take(), "modify changed@1 v2");
}

TEST_F(view, refuses_what_is_out_of_bounds_and_takes_back_what_became_so) {
    directory_view.put(node_item(1, 10, 10), told);
    KeyValue item = entry_item(1, update_of("web", 1), 11);
    directory_view.put(item, told);
    told.take();

    item.value = "\xff";
    item.mod_revision = 12;
    directory_view.put(item, told);

    EXPECT_EQ(told.take(), "delete web@1 v1");
    EXPECT_EQ(journal.refused(), 1u);
    EXPECT_EQ(journal.refusals().at(0).key, item.key);
    EXPECT_EQ(directory_view.revision_of(item.key), 12);
}

TEST_F(view, lets_nothing_count_under_a_node_key_that_cannot_be_read) {
    KeyValue item = node_item(1, 10, 10);
    item.value = "\xff";

    directory_view.put(item, told);
    directory_view.put(entry_item(1, update_of("web", 1), 11), told);

    EXPECT_EQ(told.take(), "");
    EXPECT_FALSE(directory_view.has_remains());
    EXPECT_EQ(directory_view.revision_of(item.key), 10);
}

TEST_F(view, holds_back_what_makes_a_name_too_large_until_there_is_room) {
    directory_view.put(node_item(1, 10, 10), told);
    for (std::uint32_t id = 1; id <= 3; id++)
        directory_view.put(entry_item(1, update_of("web", id, id), 10 + id), told);
    directory_view.put(entry_item(1, update_of("db", 9), 19), told);
    EXPECT_EQ(told.take(), "add web@1 v1; add web@1 v2; add db@1 v1");
    EXPECT_EQ(journal.refused(), 1u);

    directory_view.remove(key_of(1, update_of("web", 1)), 20, told);

    EXPECT_EQ(told.take(), "delete web@1 v1; add web@1 v3");
}

TEST_F(view, hides_rack_entries_that_a_node_left_in_another_rack) {
    Update update = update_of("web", 1);
    update.scope = DSR_SCOPE_RACK;
    directory_view.put(node_item(1, 10, 10, "r1"), told);
    directory_view.put(entry_item(1, update, 11), told);
    EXPECT_EQ(told.take(), "add web@1 v1");

    directory_view.put(node_item(1, 10, 12, "r2"), told);

    EXPECT_EQ(told.take(), "delete web@1 v1");
}

TEST_F(view, names_the_ranges_that_a_dead_node_left) {
    Update update = update_of("web", 1);
    update.scope = DSR_SCOPE_RACK;
    directory_view.put(entry_item(1, update, 11), told);

    const auto remains = directory_view.remains();

    ASSERT_EQ(remains.size(), 1u);
    EXPECT_EQ(remains[0].node, node(1));
    ASSERT_EQ(remains[0].ranges.size(), 2u);
    EXPECT_EQ(remains[0].ranges[0].begin, keys.system_entries_of(node(1)).begin);
    EXPECT_EQ(remains[0].ranges[1].begin, keys.rack_entries_of("r1", node(1)).begin);
}

TEST_F(view, keeps_no_more_entries_than_it_may) {
    View small(keys, {room_for_two, 1}, journal);
    small.put(node_item(1, 10, 10), told);
    small.put(entry_item(1, update_of("web", 1), 11), told);
    small.put(entry_item(1, update_of("db", 2), 12), told);

    EXPECT_EQ(told.take(), "add web@1 v1");
    EXPECT_FALSE(small.has_place_for(key_of(1, update_of("db", 2))));
    EXPECT_TRUE(small.has_place_for(key_of(1, update_of("web", 1))));
}
