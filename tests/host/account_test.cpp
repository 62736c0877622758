// Who is served when, and what limits say.
#include "host/account.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "directory_fixture.h"
#include "host/users.h"

namespace ds::host {
namespace {

// Users who have work for a number of slices. Their queues hold a session that stands for the work.
class SharesTest : public testing::Test {
  protected:
    SharesTest() {
        client.hello();
        shared_server().sessions().for_each([this](Session &one) { session = &one; });
        for (const uid_t uid : {0u, 1u, 2u})
            waiting.emplace(uid, *session);
    }
    void give_work(Account &account, int count) {
        slices[account.uid] = count;
        account.to_flush.push_back(waiting.at(account.uid));
        shares.wake(account);
    }
    // The users who got a slice in one turn.
    std::vector<uid_t> turn() {
        std::vector<uid_t> served;
        shares.run(false, [this, &served](Account &account) {
            served.push_back(account.uid);
            if (--slices[account.uid] == 0) account.to_flush.clear();
        });
        return served;
    }

    using Served = std::vector<uid_t>;
    Client client;
    Session *session = nullptr;
    std::map<uid_t, Waiting> waiting;
    std::map<uid_t, int> slices;
    Shares shares;
    Account quiet{0}, loud{1}, louder{2};
};

TEST_F(SharesTest, whoever_asks_for_little_is_served_before_those_who_have_had_a_slice) {
    give_work(loud, 100);
    give_work(louder, 100);
    EXPECT_EQ(turn(), (Served{1, 2}));
    for (int i = 0; i < 10; i++) {
        give_work(quiet, 1);

        const Served served = turn();

        ASSERT_EQ(served.size(), 2u) << "the quiet one and one other";
        EXPECT_EQ(served.front(), 0u);
    }
}

TEST_F(SharesTest, those_with_much_work_take_turns) {
    give_work(loud, 100);
    give_work(louder, 100);
    turn();
    std::map<uid_t, int> counts;

    for (int i = 0; i < 50; i++)
        for (const uid_t uid : turn())
            counts[uid]++;

    // Whoever is interrupted by other processes passes for a while, but not for long.
    EXPECT_EQ(counts[1] + counts[2], 50);
    EXPECT_GT(std::min(counts[1], counts[2]), 0);
}

TEST_F(SharesTest, work_ends) {
    give_work(loud, 3);

    EXPECT_EQ(turn(), Served{1});
    EXPECT_EQ(turn(), Served{1});
    EXPECT_TRUE(shares.has_work());
    EXPECT_EQ(turn(), Served{1});
    EXPECT_FALSE(shares.has_work());
    EXPECT_EQ(turn(), Served{});
}

// ---- limits ----

TEST(Accounts, limits_of_a_user_are_above_those_of_everybody) {
    Limits limits;
    limits.everybody[Resource::sessions] = 5;
    UserLimits user;
    user.uid = 7;
    user.amounts[Resource::publications] = 3;
    limits.users.push_back(user);
    Accounts accounts(limits);

    EXPECT_EQ(accounts.of(7).limits[Resource::publications], 3u);
    EXPECT_EQ(accounts.of(7).limits[Resource::sessions], 5u);
    EXPECT_EQ(accounts.of(8).limits[Resource::publications],
              Limits().everybody[Resource::publications]);
}

TEST(Accounts, new_limits_hold_at_once_and_for_those_who_are_there) {
    Accounts accounts{Limits()};
    Account &account = accounts.of(getuid());
    account.used[Resource::registrations] = 4;
    EXPECT_EQ(accounts.refusal(account, Resource::registrations), "");
    Limits limits;
    limits.everybody[Resource::registrations] = 4;

    accounts.set_limits(limits);

    const std::string name = user_name(getuid());
    EXPECT_EQ(accounts.refusal(account, Resource::registrations),
              "User '" + name + "' has 4 of 4 registrations; limits.user." + name +
                  ".registrations or limits.registrations changes it.");
}

TEST(Accounts, a_user_without_sessions_is_forgotten) {
    Accounts accounts{Limits()};
    Account &account = accounts.of(7);
    account.used[Resource::sessions] = 1;
    accounts.release(account);
    EXPECT_EQ(accounts.count(), 1u);

    account.used[Resource::sessions] = 0;
    accounts.release(account);

    EXPECT_EQ(accounts.count(), 0u);
}

} // namespace
} // namespace ds::host
