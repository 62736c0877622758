#include "host/listing.h"

#include <gtest/gtest.h>

#include "directory_fixture.h"

namespace ds::host {
namespace {

using Names = std::vector<std::string>;

struct Page {
    Names names;
    std::string next;
};

Page page_behind(const std::string &after, std::uint32_t limit) {
    v1::List list;
    list.set_after(after);
    list.set_limit(limit);
    std::string bytes;
    encode_page(
        shared_server().directory(), list, [](std::string_view) { return true; }, bytes);
    v1::ListReply reply;
    if (!reply.ParseFromString(bytes)) throw std::runtime_error("unreadable page");
    Page page;
    for (const v1::Snapshot &snapshot : reply.names())
        page.names.push_back(snapshot.name());
    page.next = reply.next();
    return page;
}

class ListingTest : public testing::Test {
  protected:
    ListingTest() {
        publisher.hello();
        for (const char *name : {"lb", "l", "laa", "lab", "la"})
            publisher.call(publish_request(name));
    }
    Client publisher;
};

TEST_F(ListingTest, names_come_in_order_of_length_then_of_bytes) {
    const Page page = page_behind("", 0);

    EXPECT_EQ(page.names, (Names{"l", "la", "lb", "laa", "lab"}));
    EXPECT_EQ(page.next, "");
}

TEST_F(ListingTest, pages_of_every_size_give_every_name_once) {
    for (std::uint32_t limit = 1; limit <= 6; limit++) {
        Names all;
        std::string after;
        do {
            const Page page = page_behind(after, limit);
            EXPECT_LE(page.names.size(), limit);
            all.insert(all.end(), page.names.begin(), page.names.end());
            after = page.next;
        } while (!after.empty());

        EXPECT_EQ(all, (Names{"l", "la", "lb", "laa", "lab"})) << "limit " << limit;
    }
}

TEST_F(ListingTest, a_page_goes_on_behind_a_name_that_is_gone) {
    EXPECT_EQ(page_behind("lax", 0).names, Names{});
    EXPECT_EQ(page_behind("lz", 0).names, (Names{"laa", "lab"}));
    EXPECT_EQ(page_behind("laaa", 0).names, Names{});
    EXPECT_EQ(page_behind("a", 1).names, Names{"l"});
    EXPECT_EQ(page_behind("lb", 1).names, Names{"laa"});
}

TEST_F(ListingTest, names_that_nobody_publishes_are_left_out) {
    Client watcher;
    watcher.hello();
    watcher.call(register_request("lz"));

    const Page page = page_behind("lb", 1);
    std::string bytes;
    const bool is_found = encode_name(shared_server().directory(), "lz", bytes);

    EXPECT_EQ(page.names, Names{"laa"});
    EXPECT_FALSE(is_found);
    EXPECT_TRUE(bytes.empty());
}

TEST_F(ListingTest, the_last_page_names_no_next_when_only_unpublished_names_follow) {
    Client watcher;
    watcher.hello();
    watcher.call(register_request("lzzzzzz"));

    EXPECT_EQ(page_behind("", 5).next, "");
    EXPECT_EQ(page_behind("", 4).next, "laa");
}

TEST_F(ListingTest, a_page_ends_before_its_size_limit_and_the_next_goes_on) {
    constexpr int count = 100;
    for (int i = 0; i < count; i++) {
        v1::Request request = publish_request("big" + std::to_string(1000 + i));
        request.mutable_publish()->set_scope(v1::SCOPE_LOCAL);
        request.mutable_publish()->mutable_endpoint()->set_path("/" + std::string(3999, 'p'));
        publisher.call(request);
    }

    const Page first = page_behind("lab", 0);
    const Page second = page_behind(first.next, 0);

    EXPECT_EQ(first.names.size(), page_bytes_max / 4050);
    EXPECT_EQ(first.next, first.names.back());
    EXPECT_EQ(first.names.size() + second.names.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(second.next, "");
}

} // namespace
} // namespace ds::host
