#include <gtest/gtest.h>

#include "relay/etcd/own_entries.h"

using namespace ds::relay::etcd;

namespace {

class own_entries : public testing::Test {
  protected:
    using Clock = OwnEntries::Clock;

    static KeyValue item(const std::string &key, const std::string &value, std::int64_t revision) {
        return {key, value, revision, revision, 0};
    }
    // "key=value" or "-key" of each write of the next batch.
    std::string next() {
        last = entries.next_batch(now);
        std::string text;
        for (const auto &write : last.writes)
            text += (text.empty() ? "" : " ") +
                    (write.value ? write.key + "=" + *write.value : "-" + write.key);
        return text;
    }
    std::string leftovers(bool is_period_open) {
        std::string text;
        for (const KeyValue &left : entries.take_leftovers(is_period_open))
            text += (text.empty() ? "" : " ") + left.key;
        return text;
    }

    OwnEntries entries;
    OwnEntries::Batch last;
    Clock::time_point now = Clock::now();
};

} // namespace

TEST_F(own_entries, leave_in_the_order_of_the_wishes_and_only_in_their_last_state) {
    entries.wish("b", "1");
    entries.wish("a", "1");
    entries.wish("b", "2");

    EXPECT_EQ(next(), "b=2 a=1");
    EXPECT_EQ(next(), "");
}

TEST_F(own_entries, are_never_under_way_twice) {
    entries.wish("a", "1");
    EXPECT_EQ(next(), "a=1");
    const OwnEntries::Batch first = last;
    entries.wish("a", "2");
    entries.wish("b", "1");
    EXPECT_EQ(next(), "b=1");

    entries.complete(first, 5);

    EXPECT_EQ(next(), "a=2");
}

TEST_F(own_entries, that_the_store_holds_already_are_not_written) {
    entries.replace_known({item("a", "1", 7), item("b", "1", 8)}, 5);
    entries.wish("a", "1");
    entries.wish("b", "2");

    EXPECT_EQ(next(), "b=2");
}

TEST_F(own_entries, written_under_an_earlier_node_key_are_written_again) {
    entries.replace_known({item("a", "1", 7)}, 7);
    entries.wish("a", "1");

    EXPECT_EQ(next(), "a=1");
}

TEST_F(own_entries, that_were_never_written_are_not_removed) {
    entries.wish("a", std::nullopt);

    EXPECT_EQ(next(), "");
    EXPECT_TRUE(entries.is_settled());
}

TEST_F(own_entries, are_removed_when_the_store_holds_them) {
    entries.replace_known({item("a", "1", 7)}, 5);
    entries.wish("a", std::nullopt);

    EXPECT_EQ(next(), "-a");
    entries.complete(last, 9);
    EXPECT_EQ(entries.revision_of("a"), 0);
}

TEST_F(own_entries, come_back_as_echoes_that_tell_when_they_left) {
    entries.wish("a", "1");
    next();
    entries.complete(last, 5);

    const auto echo = entries.saw("a", "1", 5);
    const auto again = entries.saw("a", "1", 5);

    EXPECT_FALSE(echo.is_foreign);
    EXPECT_EQ(echo.sent, now);
    EXPECT_FALSE(again.is_foreign);
    EXPECT_FALSE(again.sent);
}

TEST_F(own_entries, may_come_back_before_the_answer) {
    entries.wish("a", "1");
    next();

    const auto echo = entries.saw("a", "1", 5);
    entries.complete(last, 5);

    EXPECT_FALSE(echo.is_foreign);
    EXPECT_EQ(echo.sent, now);
    EXPECT_EQ(next(), "");
}

TEST_F(own_entries, are_not_mistaken_when_a_late_echo_follows_a_removal) {
    entries.wish("a", "1");
    next();
    entries.complete(last, 5);
    entries.wish("a", std::nullopt);
    next();
    entries.complete(last, 6);

    EXPECT_FALSE(entries.saw("a", "1", 5).is_foreign);
    EXPECT_EQ(entries.revision_of("a"), 0);
    EXPECT_FALSE(entries.saw("a", std::nullopt, 6).is_foreign);
    EXPECT_EQ(next(), "");
}

TEST_F(own_entries, changed_by_another_are_set_right) {
    entries.wish("a", "1");
    next();
    entries.complete(last, 5);

    EXPECT_TRUE(entries.saw("a", "evil", 6).is_foreign);
    EXPECT_EQ(next(), "a=1");
    entries.complete(last, 7);
    EXPECT_TRUE(entries.saw("a", std::nullopt, 8).is_foreign);
    EXPECT_EQ(next(), "a=1");
}

TEST_F(own_entries, are_written_again_after_a_list_that_lacks_them) {
    entries.wish("a", "1");
    next();
    entries.wish("b", "1");
    next();

    entries.replace_known({item("b", "1", 3)}, 1);

    EXPECT_EQ(next(), "a=1");
}

TEST_F(own_entries, that_nobody_wished_for_are_given_out_once) {
    entries.replace_known({item("a", "1", 7), item("b", "1", 8)}, 5);
    entries.wish("a", "1");

    EXPECT_EQ(leftovers(false), "b");
    EXPECT_EQ(leftovers(false), "");
    EXPECT_EQ(next(), "");
}

TEST_F(own_entries, replayed_in_the_restart_period_are_offered_after_it) {
    entries.replace_known({item("a", "1", 7)}, 5);

    EXPECT_EQ(leftovers(true), "a");
    EXPECT_EQ(leftovers(true), "");
    entries.replace_known({item("a", "1", 7)}, 5);
    EXPECT_EQ(leftovers(true), "");
    EXPECT_EQ(leftovers(false), "a");
    entries.forget_wishes();
    EXPECT_EQ(leftovers(false), "a");
}

TEST_F(own_entries, leave_in_batches_of_bounded_size) {
    for (int i = 0; i < 200; i++)
        entries.wish("key" + std::to_string(i), "v");
    next();
    EXPECT_EQ(last.writes.size(), batch_operations_max);
    next();
    EXPECT_EQ(last.writes.size(), 200 - batch_operations_max);

    for (int i = 0; i < 3; i++)
        entries.wish("big" + std::to_string(i), std::string(batch_bytes_max / 2, 'v'));
    next();
    EXPECT_EQ(last.writes.size(), 1u);
}

TEST_F(own_entries, of_an_earlier_node_key_are_removed_and_not_judged_unless_wished_for) {
    entries.replace_known({item("a", "1", 4), item("b", "1", 5), item("c", "1", 6)}, 5);
    entries.wish("a", "1");

    entries.remove_void();

    EXPECT_EQ(leftovers(true), "c");
    EXPECT_EQ(next(), "a=1 -b");
    entries.complete(last, 7);
    EXPECT_EQ(entries.revision_of("b"), 0);
    EXPECT_EQ(next(), "");
}
