// A directory restarts: every order of the relay's replay and the publisher's return, with the same
// endpoint and with another one, and with a relay that goes away meanwhile.
#include <tuple>

#include "cluster_fixture.h"

namespace {

enum class Return { before, after, both, never }; // seen from the replay
enum class Endpoint { same, other };
enum class Relay { stays, leaves };

using Story = std::tuple<Return, Endpoint, Relay>;

class ClusterReturnTest : public ClusterTest, public testing::WithParamInterface<Story> {
  protected:
    void SetUp() override {
        ClusterTest::SetUp();
        const Client earlier = new_client_on(*one, 100);
        publish_by(earlier, instance_of("web", "a;", 1));
        publish_by(earlier, instance_of("other", "a;", 9)); // nobody returns with this one
        elsewhere = new_watcher_on(*two, "web");
        restart(*one);
        here = new_watcher_on(*one, "web");
        publisher = new_client_on(*one, 100);
    }

    bool returns_in(Return part) const {
        const Return when = std::get<Return>(GetParam());
        return when == part || when == Return::both;
    }
    bool is_back() const { return std::get<Return>(GetParam()) != Return::never; }
    uint8_t endpoint() const { return std::get<Endpoint>(GetParam()) == Endpoint::same ? 1 : 2; }

    void play() {
        if (returns_in(Return::before)) publish_by(publisher, instance_of("web", "a;", endpoint()));
        connect(*one);
        replay_own(*one);
        if (returns_in(Return::after)) publish_by(publisher, instance_of("web", "a;", endpoint()));
        if (std::get<Relay>(GetParam()) == Relay::leaves) {
            relay_goes_away();
            relay_comes_back();
            replay_own(*one);
        }
        own_period_ends(*one);
        relay_periods_end();
    }

    Client publisher{};
    Client here{};
    Client elsewhere{};
};

std::string name_of(const testing::TestParamInfo<Story> &story) {
    static const char *const returns[] = {"back_before_the_replay", "back_after_the_replay",
                                          "back_before_and_after_the_replay", "never_back"};
    static const char *const endpoints[] = {"unchanged", "changed"};
    static const char *const relays[] = {"one_replay", "two_replays"};
    const auto [when, endpoint, relay] = story.param;
    return std::string(returns[static_cast<size_t>(when)]) + "_" +
           endpoints[static_cast<size_t>(endpoint)] + "_" + relays[static_cast<size_t>(relay)];
}

INSTANTIATE_TEST_SUITE_P(story, ClusterReturnTest,
                         testing::Combine(testing::Values(Return::before, Return::after,
                                                          Return::both, Return::never),
                                          testing::Values(Endpoint::same, Endpoint::other),
                                          testing::Values(Relay::stays, Relay::leaves)),
                         name_of);

} // namespace

TEST_P(ClusterReturnTest, a_watcher_of_the_node_never_misses_what_came_back) {
    play();

    EXPECT_EQ(saw_no_gap(here, endpoint()), is_back());
    EXPECT_EQ(news(here).find("deleted") != std::string::npos, !is_back());
}

// The two known stories in which other nodes are told that a living service is gone: a replay that
// does not know the new endpoint stands for another service. At the end its entry is withdrawn and
// the living one announced.
TEST_P(ClusterReturnTest,
       other_nodes_miss_it_only_when_the_last_replay_does_not_know_its_endpoint) {
    const bool is_unknown = std::get<Endpoint>(GetParam()) == Endpoint::other &&
                            (std::get<Return>(GetParam()) == Return::before ||
                             std::get<Relay>(GetParam()) == Relay::leaves);
    play();

    EXPECT_EQ(news(elsewhere).find("deleted") != std::string::npos, is_unknown || !is_back());
}

// The known story of a service that stands twice: changed before the replay and published again
// after it. The newest record of the instance is then the replayed one, nobody's yet, and the
// second publication takes that over beside the first one's record.
TEST_P(ClusterReturnTest, what_came_back_lives_everywhere_and_the_rest_is_gone) {
    const bool stands_twice = GetParam() == Story{Return::both, Endpoint::other, Relay::stays} ||
                              GetParam() == Story{Return::both, Endpoint::other, Relay::leaves};
    const std::string entry = std::to_string(endpoint()) + "@1";
    play();

    EXPECT_EQ(visible_everywhere("web"), stands_twice ? entry + " " + entry
                                         : is_back()  ? entry
                                                      : "");
    EXPECT_EQ(visible_everywhere("other"), "");
    for (const ds_service_t *service : records(*one, "web"))
        EXPECT_EQ(service->flags, 0u);
}

TEST_P(ClusterReturnTest, its_publisher_takes_everything_along_and_nothing_bounces) {
    play();

    leaves(publisher);

    EXPECT_EQ(visible_everywhere("web"), "");
    EXPECT_EQ(relay_holds(), "");
    offer_stale(*one);
    EXPECT_EQ(relay.bounces(), std::vector<uint32_t>{});
    EXPECT_EQ(relay.vain_deletions(), 0u);
}
