#include "host/outbound.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include "directory_fixture.h"

namespace ds::host {
namespace {

// A sending side over a pipe-like socket whose capacity is small, and real elements to tell about.
class OutboundTest : public testing::Test {
  protected:
    OutboundTest() {
        std::array<int, 2> ends = {};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()), 0);
        near = UniqueFd(ends[0]);
        far = UniqueFd(ends[1]);
        const int bytes = 1; // the kernel takes its own minimum
        setsockopt(near.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        publisher.hello();
        publish("outbound.small", 1);
        publish("outbound.large", 100);
        add(0, "outbound.small", 11);
        add(1, "outbound.large", 22);
    }
    ~OutboundTest() override {
        for (ds_client_reg_t &record : records)
            record.selem = nullptr;
    }

    void publish(const std::string &name, int instances) {
        for (int i = 0; i < instances; i++) {
            v1::Request request = publish_request(name, std::to_string(i));
            request.mutable_publish()->mutable_endpoint()->set_path("/" + std::string(900, 'p'));
            request.mutable_publish()->set_scope(v1::SCOPE_LOCAL);
            publisher.call(request);
        }
    }
    void add(std::size_t i, const std::string &name, std::uint64_t cookie) {
        records[i].handle = static_cast<std::uint32_t>(i + 1);
        records[i].selem = shared_server().directory().find(name);
        registrations[i].record = &records[i];
        registrations[i].cookie = cookie;
    }
    Outbound::Result send() {
        Outbound::Result result = Outbound::Result::more;
        while (result == Outbound::Result::more)
            result = outbound.send(near.get(), output);
        output.snapshots.clear();
        return result;
    }
    void drain() {
        std::array<char, 65536> bytes;
        ssize_t count = 0;
        while ((count = recv(far.get(), bytes.data(), bytes.size(), 0)) > 0)
            received.append(bytes.data(), static_cast<std::size_t>(count));
    }
    void send_all() {
        while (send() == Outbound::Result::blocked)
            drain();
        drain();
    }
    std::vector<v1::Event> events() const {
        std::vector<v1::Event> all;
        std::string_view rest = received, message;
        std::size_t consumed = 0;
        while (proto::cut_frame(rest, message, consumed) == proto::Cut::complete) {
            all.emplace_back();
            EXPECT_TRUE(
                all.back().ParseFromArray(message.data(), static_cast<int>(message.size())));
            rest.remove_prefix(consumed);
        }
        EXPECT_TRUE(rest.empty());
        return all;
    }
    void append_reply(std::uint32_t seq) {
        v1::Event event;
        event.mutable_reply()->set_seq(seq);
        proto::append_frame(outbound.replies(), event);
    }

    Client publisher;
    UniqueFd near, far;
    Output output;
    Outbound outbound;
    std::array<ds_client_reg_t, 2> records = {};
    std::array<Registration, 2> registrations;
    std::string received;
};

TEST_F(OutboundTest, answers_leave_before_notifications_and_these_in_the_order_of_their_marks) {
    append_reply(1);
    outbound.mark(registrations[1]);
    append_reply(2);
    outbound.mark(registrations[0]);

    send_all();

    const auto all = events();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0].reply().seq(), 1u);
    EXPECT_EQ(all[1].reply().seq(), 2u);
    EXPECT_EQ(all[2].notification().handle(), 2u);
    EXPECT_EQ(all[2].notification().cookie(), 22u);
    EXPECT_EQ(all[2].notification().snapshot().instances_size(), 100);
    EXPECT_EQ(all[3].notification().handle(), 1u);
    EXPECT_EQ(all[3].notification().snapshot().name(), "outbound.small");
    EXPECT_EQ(output.counters.notifications, 2u);
}

TEST_F(OutboundTest, a_second_mark_before_delivery_is_told_once) {
    EXPECT_TRUE(outbound.mark(registrations[0]));
    EXPECT_FALSE(outbound.mark(registrations[0]));

    send_all();

    EXPECT_EQ(events().size(), 1u);
    EXPECT_TRUE(outbound.mark(registrations[0]));
}

TEST_F(OutboundTest, one_that_was_cut_is_finished_as_it_was_and_then_told_anew) {
    outbound.mark(registrations[1]);
    ASSERT_EQ(send(), Outbound::Result::blocked);
    const std::size_t rest = outbound.unsent_bytes();
    publish("outbound.large", 1); // a change of its instance 0
    outbound.mark(registrations[1]);

    append_reply(7);
    send_all();

    EXPECT_GT(rest, 0u);
    const auto all = events();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1].reply().seq(), 7u);
    EXPECT_LT(all[0].notification().snapshot().version(),
              all[2].notification().snapshot().version());
}

TEST_F(OutboundTest, what_waits_behind_a_cut_one_is_told_in_its_latest_state) {
    outbound.mark(registrations[1]);
    outbound.mark(registrations[0]);
    ASSERT_EQ(send(), Outbound::Result::blocked);
    for (int i = 0; i < 50; i++)
        publish("outbound.small", 1);

    send_all();

    const auto all = events();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[1].notification().snapshot().version(), records[0].selem->selem_version);
}

TEST_F(OutboundTest, an_unmarked_registration_is_not_told) {
    outbound.mark(registrations[0]);
    outbound.mark(registrations[1]);
    outbound.unmark(registrations[0]);

    send_all();

    const auto all = events();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].notification().handle(), 2u);
}

TEST_F(OutboundTest, more_notifications_than_one_write_gathers_all_arrive) {
    constexpr std::size_t count = 500;
    std::vector<ds_client_reg_t> many_records(count);
    std::vector<Registration> many(count);
    for (std::size_t i = 0; i < count; i++) {
        many_records[i].handle = static_cast<std::uint32_t>(i + 1);
        many_records[i].selem = records[i % 25 == 0 ? 1 : 0].selem;
        many[i].record = &many_records[i];
        outbound.mark(many[i]);
    }

    send_all();

    const auto all = events();
    ASSERT_EQ(all.size(), count);
    for (std::size_t i = 0; i < count; i++)
        EXPECT_EQ(all[i].notification().handle(), i + 1);
}

TEST_F(OutboundTest, a_socket_whose_far_end_is_closed_is_broken) {
    far.reset();
    append_reply(1);

    EXPECT_EQ(send(), Outbound::Result::broken);
}

} // namespace
} // namespace ds::host
