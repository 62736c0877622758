// Names and sessions that come and go leave nothing behind.
#include <gtest/gtest.h>

#include <functional>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

class Churn : public System {
  protected:
    static constexpr std::uint32_t names_count = 20'000;
    static constexpr std::uint32_t batch_count = 500;
    static constexpr std::size_t growth_bytes_max = 1u << 20;

    // Runs `act` with that many numbers that were not used before.
    void repeat(std::uint32_t count, const std::function<void(std::uint32_t)> &act) {
        for (std::uint32_t i = 0; i < count; i++)
            act(next_++);
    }

    // What `act` leaves in the daemon's memory once its pools and buffers have their size.
    void expect_no_growth(std::uint32_t count, const std::function<void(std::uint32_t)> &act) {
        repeat(count / 10, act);
        const std::size_t before = daemon.memory_bytes();
        repeat(count, act);
        EXPECT_LT(daemon.memory_bytes(), before + growth_bound(growth_bytes_max));
    }

    static std::string name(std::uint32_t i) {
        return "a-name-of-some-length-" + std::to_string(i);
    }

    static void expect_empty(Client &client) {
        const v1::StatusReply status = client.status();
        EXPECT_EQ(status.names(), 0u);
        EXPECT_EQ(status.services(), 0u);
        EXPECT_EQ(status.registrations(), 0u);
        EXPECT_EQ(client.ok(list_request("")).list().names_size(), 0);
    }

  private:
    std::uint32_t next_ = 0;
};

TEST_F(Churn, twenty_thousand_names_published_and_withdrawn_leave_no_memory) {
    Client client(daemon);
    std::uint32_t publishes = 0;

    expect_no_growth(names_count / batch_count, [&](std::uint32_t batch) {
        std::vector<v1::Request> requests;
        for (std::uint32_t i = batch * batch_count; i < (batch + 1) * batch_count; i++) {
            requests.push_back(publish_request(name(i), "instance", 80));
            requests.push_back(withdraw_request(name(i), "instance"));
            publishes++;
        }
        client.pipeline(std::move(requests));
    });

    EXPECT_GE(publishes, names_count);
    EXPECT_EQ(client.status().publishes(), publishes);
    EXPECT_EQ(client.status().withdrawals(), publishes);
    expect_empty(client);
}

TEST_F(Churn, twenty_thousand_names_watched_and_left_leave_no_memory) {
    Client client(daemon);

    expect_no_growth(names_count, [&](std::uint32_t i) {
        const std::uint32_t handle = client.watch(name(i));
        ASSERT_EQ(handle, i + 1);
        client.snapshot();
        client.unwatch(name(i), handle);
    });

    expect_empty(client);
}

TEST_F(Churn, two_thousand_sessions_that_publish_and_watch_leave_no_memory) {
    constexpr std::uint32_t sessions_count = 2'000;
    Client witness(daemon);
    const std::size_t descriptors = daemon.descriptor_count();

    expect_no_growth(sessions_count, [&](std::uint32_t i) {
        Client client(daemon);
        client.publish(name(i), "", 80);
        client.watch(name(i));
        client.watch(name(i) + "-other");
    });

    witness.await_sessions(1);
    EXPECT_EQ(daemon.descriptor_count(), descriptors);
    expect_empty(witness);
}

TEST_F(Churn, twenty_thousand_changes_of_one_name_leave_no_memory) {
    Client client(daemon);

    expect_no_growth(names_count / batch_count, [&](std::uint32_t batch) {
        std::vector<v1::Request> requests;
        for (std::uint32_t i = 0; i < batch_count; i++)
            requests.push_back(path_request("web", "", long_path(10 + (batch * 7 + i) % 3000)));
        client.pipeline(std::move(requests));
    });

    EXPECT_EQ(client.status().services(), 1u);
}

} // namespace
