// Which snapshots a watcher is told, and what they say while a daemon recovers.
#include "client/reported.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "scripted_peer.h"

namespace client_test {
namespace {

using ds::client::Reported;

v1::Snapshot reconciling(v1::Snapshot snapshot) {
    snapshot.set_reconciling(true);
    return snapshot;
}

std::string known(const Reported &reported) {
    std::vector<std::string> names;
    for (const v1::Instance &instance : reported.newest()->instances())
        names.push_back(instance.instance() + ':' +
                        std::to_string(instance.endpoint().ipv4().port()));
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string &name : names)
        text += (text.empty() ? "" : " ") + name;
    return text;
}

class ReportedTest : public testing::Test {
  protected:
    ReportedTest() {
        reported_.take(snapshot_of("web", "a:1 b:2", 50, 10));
        reported_.lose_connection();
    }
    Reported reported_; // knows a and b, and has lost the connection
};

TEST_F(ReportedTest, while_the_connection_holds_every_snapshot_is_told) {
    Reported reported;

    EXPECT_EQ(reported.newest(), nullptr);
    EXPECT_TRUE(reported.take(snapshot_of("web", "a:1")));
    EXPECT_TRUE(reported.take(snapshot_of("web", "a:1")));
    EXPECT_TRUE(reported.take(snapshot_of("web", "")));
}

TEST_F(ReportedTest, without_a_connection_the_last_snapshot_stays) {
    EXPECT_EQ(known(reported_), "a:1 b:2");
}

TEST_F(ReportedTest, the_same_instances_with_other_numbers_in_another_order_are_no_news) {
    EXPECT_FALSE(reported_.take(snapshot_of("web", "b:2 a:1", 1, 77)));

    EXPECT_EQ(reported_.newest()->version(), 1u);
    EXPECT_EQ(reported_.newest()->instances(0).service_id(), 77u);
    EXPECT_TRUE(reported_.take(snapshot_of("web", "b:2 a:1", 2, 77)));
}

TEST_F(ReportedTest, any_other_difference_is_news) {
    const auto differs = [&](auto change) {
        Reported reported;
        reported.take(snapshot_of("web", "a:1"));
        reported.lose_connection();
        v1::Snapshot snapshot = snapshot_of("web", "a:1");
        change(*snapshot.mutable_instances(0));
        return reported.take(snapshot);
    };

    EXPECT_FALSE(differs([](v1::Instance &) {}));
    EXPECT_FALSE(differs([](v1::Instance &it) { it.set_generation(9); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_instance("x"); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_scope(v1::SCOPE_SYSTEM); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_node("other."); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_local(false); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.mutable_endpoint()->set_path("/x"); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_ha_role(v1::HA_ROLE_ACTIVE); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_issu_role(v1::ISSU_ROLE_PRIMARY); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_issu_id(4); }));
    EXPECT_TRUE(differs([](v1::Instance &it) { it.set_pid(101); }));
}

TEST_F(ReportedTest, a_settled_snapshot_after_a_loss_is_the_truth) {
    EXPECT_TRUE(reported_.take(snapshot_of("web", "b:2")));

    EXPECT_EQ(known(reported_), "b:2");
}

TEST_F(ReportedTest, a_daemon_that_gathers_does_not_take_away_what_was_known) {
    EXPECT_FALSE(reported_.take(reconciling(snapshot_of("web", ""))));
    EXPECT_EQ(known(reported_), "a:1 b:2");

    EXPECT_FALSE(reported_.take(reconciling(snapshot_of("web", "b:2", 2, 90))));
    EXPECT_EQ(known(reported_), "a:1 b:2");

    EXPECT_TRUE(reported_.take(reconciling(snapshot_of("web", "b:2 c:3", 3, 90))));
    EXPECT_EQ(known(reported_), "a:1 b:2 c:3");

    EXPECT_TRUE(reported_.take(snapshot_of("web", "b:2 c:3", 4, 90)));
    EXPECT_EQ(known(reported_), "b:2 c:3");
}

TEST_F(ReportedTest, a_new_endpoint_of_the_same_process_replaces_the_old_one) {
    EXPECT_TRUE(reported_.take(reconciling(snapshot_of("web", "a:9"))));

    EXPECT_EQ(known(reported_), "a:9 b:2");
}

TEST_F(ReportedTest, another_process_or_node_or_scope_does_not_replace_it) {
    v1::Snapshot snapshot = snapshot_of("web", "a:7 a:8 a:9");
    snapshot.mutable_instances(0)->set_pid(555);
    snapshot.mutable_instances(1)->set_node("other.");
    snapshot.mutable_instances(2)->set_scope(v1::SCOPE_SYSTEM);

    EXPECT_TRUE(reported_.take(reconciling(snapshot)));

    EXPECT_EQ(known(reported_), "a:1 a:7 a:8 a:9 b:2");
}

TEST_F(ReportedTest, what_came_back_and_went_again_has_gone) {
    reported_.take(reconciling(snapshot_of("web", "a:1")));

    EXPECT_TRUE(reported_.take(reconciling(snapshot_of("web", "", 2))));

    EXPECT_EQ(known(reported_), "b:2");
}

TEST_F(ReportedTest, a_second_loss_carries_over_what_was_carried) {
    reported_.take(reconciling(snapshot_of("web", "c:3")));

    reported_.lose_connection();
    reported_.take(reconciling(snapshot_of("web", "")));

    EXPECT_EQ(known(reported_), "a:1 b:2 c:3");
}

TEST_F(ReportedTest, the_end_of_a_restart_period_is_news_to_whom_its_beginning_was_told) {
    Reported new_watcher;
    EXPECT_TRUE(new_watcher.take(reconciling(snapshot_of("web", "a:1"))));
    new_watcher.lose_connection();

    EXPECT_FALSE(new_watcher.take(reconciling(snapshot_of("web", "a:1"))));
    EXPECT_TRUE(new_watcher.take(snapshot_of("web", "a:1")));
    EXPECT_FALSE(new_watcher.newest()->reconciling());

    EXPECT_FALSE(reported_.take(reconciling(snapshot_of("web", "a:1 b:2"))));
    EXPECT_FALSE(reported_.take(snapshot_of("web", "a:1 b:2")));
}

TEST_F(ReportedTest, once_settled_everything_is_told_again) {
    reported_.take(snapshot_of("web", "a:1 b:2"));

    EXPECT_TRUE(reported_.take(reconciling(snapshot_of("web", "a:1"))));

    EXPECT_EQ(known(reported_), "a:1");
}

TEST_F(ReportedTest, a_loss_before_the_first_snapshot_makes_the_first_one_no_less_news) {
    Reported reported;
    reported.lose_connection();

    EXPECT_TRUE(reported.take(snapshot_of("web", "")));
}

} // namespace
} // namespace client_test
