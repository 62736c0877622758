#include "host/frame_reader.h"

#include <gtest/gtest.h>

#include <vector>

namespace ds::host {
namespace {

using proto::Cut;

std::string frame(std::string_view message) {
    std::string out;
    proto::append_header(out, message.size());
    return out.append(message);
}

// All messages that come out when the stream arrives in these pieces.
std::vector<std::string> messages_of(const std::vector<std::string_view> &pieces) {
    FrameReader reader;
    std::vector<std::string> messages;
    for (const std::string_view piece : pieces) {
        const std::string arrived(piece); // gone after settle, as a shared buffer would be
        reader.supply(arrived);
        std::string_view message;
        while (reader.next(message) == Cut::complete)
            messages.emplace_back(message);
        reader.settle();
    }
    return messages;
}

const std::vector<std::string> three = {"first", "", "the third one"};
const std::string stream = frame(three[0]) + frame(three[1]) + frame(three[2]);

TEST(FrameReader, every_split_into_two_gives_the_same_messages) {
    for (std::size_t at = 0; at <= stream.size(); at++) {
        const std::string_view all = stream;

        const auto messages = messages_of({all.substr(0, at), all.substr(at)});

        EXPECT_EQ(messages, three) << "split at " << at;
    }
}

TEST(FrameReader, every_split_into_three_gives_the_same_messages) {
    const std::string_view all = stream;
    for (std::size_t first = 0; first <= all.size(); first++)
        for (std::size_t second = first; second <= all.size(); second++) {
            const auto messages = messages_of(
                {all.substr(0, first), all.substr(first, second - first), all.substr(second)});

            EXPECT_EQ(messages, three) << "split at " << first << " and " << second;
        }
}

TEST(FrameReader, single_bytes_give_the_same_messages) {
    std::vector<std::string_view> bytes;
    for (std::size_t i = 0; i < stream.size(); i++)
        bytes.push_back(std::string_view(stream).substr(i, 1));

    const auto messages = messages_of(bytes);

    EXPECT_EQ(messages, three);
}

TEST(FrameReader, messages_that_were_not_taken_are_kept_in_order) {
    FrameReader reader;
    std::string_view message;
    reader.supply(stream);
    ASSERT_EQ(reader.next(message), Cut::complete);
    reader.settle();

    reader.supply({});

    ASSERT_EQ(reader.next(message), Cut::complete);
    EXPECT_EQ(message, three[1]);
    ASSERT_EQ(reader.next(message), Cut::complete);
    EXPECT_EQ(message, three[2]);
    EXPECT_EQ(reader.next(message), Cut::partial);
    reader.settle();
    EXPECT_EQ(reader.bytes_held(), 0u);
}

TEST(FrameReader, the_longest_message_is_taken_and_one_byte_more_is_too_long) {
    FrameReader reader;
    const std::string longest = frame(std::string(proto::frame_bytes_max, 'x'));
    std::string header_of_longer;
    proto::append_header(header_of_longer, proto::frame_bytes_max + 1);
    std::string_view message;

    reader.supply(longest);
    const Cut at_the_limit = reader.next(message);
    const std::size_t bytes = message.size();
    reader.settle();
    reader.supply(header_of_longer);
    const Cut beyond_it = reader.next(message);

    EXPECT_EQ(at_the_limit, Cut::complete);
    EXPECT_EQ(bytes, proto::frame_bytes_max);
    EXPECT_EQ(beyond_it, Cut::too_long);
}

} // namespace
} // namespace ds::host
