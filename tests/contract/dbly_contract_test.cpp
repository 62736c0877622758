// Lists: the shapes that code relies on when it walks them by hand.
#include "platform/dbly.h"
#include <gtest/gtest.h>
#include <vector>

namespace {

struct member {
    int key;
    dbly_linkage_t linkage;
};

std::vector<int> keys_of(const dbly_head_t &head) {
    std::vector<int> keys;
    for (dbly_linkage_t *at = head.next; at != nullptr; at = at->next)
        keys.push_back(DBLY_RECORD(at, member, linkage)->key);
    return keys;
}

class DblyContract : public testing::Test {
  protected:
    dbly_head_t head = {};
    member a = {1, {}};
    member b = {2, {}};
    member c = {3, {}};
};

TEST_F(DblyContract, linking_behind_the_head_puts_the_newest_first) {
    dbly_linkage_link(&head, &a.linkage);
    dbly_linkage_link(&head, &b.linkage);
    dbly_linkage_link(&head, &c.linkage);

    EXPECT_EQ(keys_of(head), (std::vector<int>{3, 2, 1}));
}

TEST_F(DblyContract, linking_behind_a_member_puts_it_there) {
    dbly_linkage_link(&head, &a.linkage);
    dbly_linkage_link(&a.linkage, &c.linkage);
    dbly_linkage_link(&a.linkage, &b.linkage);

    EXPECT_EQ(keys_of(head), (std::vector<int>{1, 2, 3}));
}

TEST_F(DblyContract, the_first_member_points_back_at_the_head_and_the_last_at_nothing) {
    dbly_linkage_link(&head, &b.linkage);
    dbly_linkage_link(&head, &a.linkage);

    EXPECT_EQ(head.prev, nullptr);
    EXPECT_EQ(a.linkage.prev, &head);
    EXPECT_EQ(b.linkage.prev, &a.linkage);
    EXPECT_EQ(b.linkage.next, nullptr);
}

TEST_F(DblyContract, delinking_works_at_both_ends_and_in_the_middle) {
    dbly_linkage_link(&head, &c.linkage);
    dbly_linkage_link(&head, &b.linkage);
    dbly_linkage_link(&head, &a.linkage);

    dbly_linkage_delink(&b.linkage);
    EXPECT_EQ(keys_of(head), (std::vector<int>{1, 3}));
    EXPECT_EQ(c.linkage.prev, &a.linkage);

    dbly_linkage_delink(&a.linkage);
    EXPECT_EQ(keys_of(head), (std::vector<int>{3}));
    EXPECT_EQ(c.linkage.prev, &head);

    dbly_linkage_delink(&c.linkage);
    EXPECT_EQ(head.next, nullptr);
    EXPECT_EQ(head.prev, nullptr);
}

TEST_F(DblyContract, a_delinked_linkage_is_empty_and_can_be_linked_again) {
    dbly_linkage_link(&head, &a.linkage);

    dbly_linkage_delink(&a.linkage);

    EXPECT_EQ(a.linkage.next, nullptr);
    EXPECT_EQ(a.linkage.prev, nullptr);
    dbly_linkage_link(&head, &a.linkage);
    EXPECT_EQ(keys_of(head), (std::vector<int>{1}));
}

TEST_F(DblyContract, delinking_what_is_not_linked_changes_nothing) {
    dbly_linkage_link(&head, &a.linkage);

    dbly_linkage_delink(&b.linkage);

    EXPECT_EQ(keys_of(head), (std::vector<int>{1}));
    EXPECT_EQ(b.linkage.next, nullptr);
    EXPECT_EQ(b.linkage.prev, nullptr);
}

TEST_F(DblyContract, the_record_of_no_linkage_is_no_record) {
    EXPECT_EQ(DBLY_RECORD(head.next, member, linkage), nullptr);
    EXPECT_EQ(DBLY_RECORD(&a.linkage, member, linkage), &a);
}

} // namespace
