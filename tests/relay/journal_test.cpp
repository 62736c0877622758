#include <gtest/gtest.h>

#include "relay/etcd/journal.h"

using namespace ds::relay;
using ds::relay::etcd::Journal;
using std::chrono::microseconds;

TEST(journal, counts_equal_errors_together_and_keeps_a_bounded_number) {
    Journal journal;
    for (int i = 0; i < 3; i++)
        journal.error("refused");
    for (int i = 0; i < 40; i++)
        journal.error("error " + std::to_string(i));

    EXPECT_EQ(journal.errors().size(), 16u);
    EXPECT_EQ(journal.errors().back().text, "error 39");

    Journal other;
    other.error("refused");
    other.error("refused");
    ASSERT_EQ(other.errors().size(), 1u);
    EXPECT_EQ(other.errors()[0].count, 2u);
    EXPECT_GT(other.errors()[0].last_ns, 0u);
}

TEST(journal, keeps_the_newest_refusals_one_for_each_key) {
    Journal journal;
    journal.refuse("a", "first");
    journal.refuse("a", "second");
    for (int i = 0; i < 15; i++)
        journal.refuse("key" + std::to_string(i), "reason");

    EXPECT_EQ(journal.refused(), 17u);
    ASSERT_EQ(journal.refusals().size(), 16u);
    EXPECT_EQ(journal.refusals()[0].reason, "second");
}

TEST(journal, shows_no_control_characters) {
    Journal journal;
    journal.refuse("key\n", "reason");
    journal.error("bad\xff");

    EXPECT_EQ(journal.refusals().at(0).key, "key\\x0a");
    EXPECT_EQ(journal.errors().at(0).text, "bad\\xff");
}

TEST(journal, tells_the_percentiles_of_the_newest_echoes) {
    Journal journal;
    EXPECT_EQ(journal.echo_delay().p99_us, 0u);
    for (int i = 0; i < 1024; i++)
        journal.echo(microseconds(1'000'000)); // leaves the window
    for (int i = 1; i <= 1024; i++)
        journal.echo(microseconds(i));

    const EchoDelay delay = journal.echo_delay();

    EXPECT_EQ(delay.count, 2048u);
    EXPECT_EQ(delay.last_us, 1024u);
    EXPECT_EQ(delay.p50_us, 512u);
    EXPECT_EQ(delay.p99_us, 1013u);
}
