// The reader against files that are foreign, short, or damaged at any place.
#include "ring_test_support.h"
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sys/stat.h>
#include <vector>

namespace {

using ring_test::write_checked;

// Places in the header that the file format documents.
constexpr std::size_t at_version = 8;
constexpr std::size_t at_header_bytes = 12;
constexpr std::size_t at_data_bytes = 16;
constexpr std::size_t at_channel = 56;
constexpr std::size_t at_head = 448;
constexpr std::size_t at_tail = 456;
constexpr std::size_t at_data = 4096;

class RingHostile : public ring_test::RingTest {
  protected:
    void SetUp() override {
        RingTest::SetUp();
        ASSERT_EQ(open("pub", 0x2000), 0);
        for (std::uint32_t i = 0; i < 30; i++)
            write_checked(channel, i);
        rtrace_close(channel);
        channel = nullptr;
        std::ifstream file(path("pub"), std::ios::binary);
        good.assign(std::istreambuf_iterator<char>(file), {});
        ASSERT_EQ(good.size(), 0x3000u);
    }

    std::unique_ptr<ds::ring::Reader> open_bytes(const std::string &bytes) {
        std::ofstream(path("bad"), std::ios::binary | std::ios::trunc) << bytes;
        return reader("bad");
    }
    template <typename T> std::string with(std::size_t at, T value) const {
        std::string bytes = good;
        std::memcpy(bytes.data() + at, &value, sizeof value);
        return bytes;
    }
    bool is_refused(const std::string &bytes, const std::string &reason) {
        return open_bytes(bytes) == nullptr && error.find(reason) != std::string::npos;
    }

    std::string good;
};

TEST_F(RingHostile, a_missing_file_is_refused_with_the_reason_of_the_system) {
    EXPECT_EQ(reader("missing"), nullptr);
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
}

TEST_F(RingHostile, what_is_no_regular_file_is_refused_and_does_not_block) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);

    EXPECT_EQ(reader("fifo"), nullptr);
    EXPECT_NE(error.find("is not a trace ring file"), std::string::npos) << error;
    EXPECT_EQ(ds::ring::Reader::open(directory, error), nullptr);
}

TEST_F(RingHostile, foreign_and_short_files_are_refused_by_name) {
    EXPECT_TRUE(is_refused("", "is not a trace ring file")) << error;
    EXPECT_TRUE(is_refused(std::string(100'000, 'x'), "is not a trace ring file")) << error;
    EXPECT_TRUE(is_refused(good.substr(0, 100), "is not a trace ring file")) << error;
    EXPECT_TRUE(is_refused(good.substr(0, 4096), "not as long as its header says")) << error;
    EXPECT_TRUE(is_refused(good.substr(0, 0x2fff), "not as long as its header says")) << error;
    EXPECT_TRUE(is_refused(good + "x", "not as long as its header says")) << error;
}

TEST_F(RingHostile, a_damaged_header_is_refused_with_what_is_wrong) {
    EXPECT_TRUE(is_refused(with<std::uint32_t>(at_version, 2), "format version 2")) << error;
    EXPECT_TRUE(is_refused(with<std::uint32_t>(at_version, 0x01000000), "other byte order"))
        << error;
    EXPECT_TRUE(is_refused(with<std::uint32_t>(at_header_bytes, 0), "sizes")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_data_bytes, 0), "sizes")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_data_bytes, 0x2001), "sizes")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_data_bytes, ~7ull), "sizes")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_data_bytes, 0x1000), "not as long")) << error;
    std::string endless_text = good;
    std::memset(endless_text.data() + at_channel, 'c', 64);
    EXPECT_TRUE(is_refused(endless_text, "has no end")) << error;
}

TEST_F(RingHostile, impossible_positions_are_refused) {
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_head, ~7ull), "positions")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_tail, ~7ull), "positions")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_tail, 4), "positions")) << error;
    EXPECT_TRUE(is_refused(with<std::uint64_t>(at_head, 0x2008), "positions")) << error;
}

TEST_F(RingHostile, a_record_that_makes_no_sense_ends_the_reading_before_it) {
    const std::uint32_t wrong_sizes[] = {0, 4, 0x2f, 0x10000, 0xfffffff8, 0x28};
    std::uint32_t first_bytes = 0;
    std::memcpy(&first_bytes, good.data() + at_data, sizeof first_bytes);
    for (const std::uint32_t wrong : wrong_sizes) {
        const auto ring = open_bytes(with(at_data + first_bytes, wrong));
        ASSERT_NE(ring, nullptr) << error;
        std::uint64_t position = 0;
        std::uint64_t lost = 0;

        const auto records = ring->read(position, lost);

        ASSERT_EQ(records.size(), 1u) << wrong;
        EXPECT_EQ(ring_test::checked_index(records[0]), 0);
        EXPECT_EQ(position, 1u);
        EXPECT_NE(ring->flaw().find("makes no sense"), std::string::npos) << wrong;
    }
}

TEST_F(RingHostile, a_record_that_claims_the_last_number_ends_the_reading_for_good) {
    constexpr std::size_t at_sequence = 8; // of a record
    const auto ring = open_bytes(with(at_data + at_sequence, ~std::uint64_t{0}));
    ASSERT_NE(ring, nullptr) << error;
    std::uint64_t position = 0;
    std::uint64_t lost = 0;

    const auto first = ring->read(position, lost);
    const auto second = ring->read(position, lost);

    EXPECT_TRUE(first.empty());
    EXPECT_TRUE(second.empty());
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(lost, 0u);
}

TEST_F(RingHostile, a_record_out_of_its_turn_ends_the_reading_before_it) {
    constexpr std::size_t at_sequence = 8;
    std::uint32_t first_bytes = 0;
    std::memcpy(&first_bytes, good.data() + at_data, sizeof first_bytes);
    const auto ring = open_bytes(with<std::uint64_t>(at_data + first_bytes + at_sequence, 7));
    ASSERT_NE(ring, nullptr) << error;
    std::uint64_t position = 0;
    std::uint64_t lost = 0;

    const auto records = ring->read(position, lost);

    EXPECT_EQ(records.size(), 1u);
    EXPECT_EQ(lost, 0u);
    EXPECT_NE(ring->flaw().find("makes no sense"), std::string::npos);
}

// As a writer leaves it that is killed within a record: the head has not moved yet.
TEST_F(RingHostile, a_record_that_was_only_begun_is_not_read) {
    std::uint64_t head = 0;
    std::memcpy(&head, good.data() + at_head, sizeof head);
    for (const std::size_t torn_bytes : {1u, 8u, 41u, 63u}) {
        std::string bytes = good;
        std::memset(bytes.data() + at_data + head, 0x51, torn_bytes);
        const auto ring = open_bytes(bytes);
        ASSERT_NE(ring, nullptr) << error;
        std::uint64_t position = 0;
        std::uint64_t lost = 0;

        const auto records = ring->read(position, lost);

        EXPECT_EQ(records.size(), 30u);
        EXPECT_EQ(ring_test::checked_index(records.back()), 29);
        EXPECT_EQ(ring->flaw(), "");
    }
}

TEST_F(RingHostile, random_damage_never_leads_outside_the_file) {
    std::mt19937 random(12345);
    int opened = 0;
    for (int round = 0; round < 1500; round++) {
        std::string bytes = good;
        const std::size_t from = round % 2 == 0 ? at_data : 0;
        for (int hit = 0; hit < 8; hit++)
            bytes[from + random() % (bytes.size() - from) / (1 + random() % 8)] =
                static_cast<char>(random());

        const auto ring = open_bytes(bytes);
        if (ring == nullptr) {
            ASSERT_FALSE(error.empty());
            continue;
        }
        std::uint64_t position = 0;
        std::uint64_t lost = 0;
        const auto records = ring->read(position, lost);

        opened++;
        ASSERT_LE(records.size(), 0x2000u / 40);
    }
    EXPECT_GT(opened, 700);
}

TEST_F(RingHostile, a_file_that_is_cut_short_under_the_reader_gives_nothing_more) {
    for (const std::size_t bytes_left : {0u, 400u, 4096u, 4200u}) {
        const auto ring = open_bytes(good);
        ASSERT_NE(ring, nullptr) << error;
        std::filesystem::resize_file(path("bad"), bytes_left);
        std::uint64_t position = 0;
        std::uint64_t lost = 0;

        const auto records = ring->read(position, lost);

        EXPECT_TRUE(records.empty());
        EXPECT_EQ(position, 0u);
        EXPECT_EQ(ring->flaw(), "was cut short while it was read");
    }
}

TEST_F(RingHostile, a_file_is_told_from_the_one_that_replaced_it) {
    const auto ring = reader("pub");
    ASSERT_NE(ring, nullptr) << error;

    EXPECT_TRUE(ring->is_still_at(path("pub")));
    std::filesystem::rename(path("pub"), path("gone"));
    EXPECT_TRUE(ring->is_still_at(path("pub"))) << "nothing is there yet";
    ASSERT_NE(open_bytes(good), nullptr) << error;
    std::filesystem::rename(path("bad"), path("pub"));
    EXPECT_FALSE(ring->is_still_at(path("pub")));
    EXPECT_TRUE(ring->is_still_at(path("gone")));
}

TEST_F(RingHostile, a_writer_whose_file_was_spoilt_starts_over_and_goes_on) {
    ASSERT_EQ(open("spoilt", 0x1000), 0);
    for (std::uint32_t i = 0; i < 10; i++)
        write_checked(channel, i);
    std::fstream file(path("spoilt"), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(4096);
    file << std::string(4096, '\x03');
    file.close();

    for (std::uint32_t i = 10; i < 1000; i++)
        write_checked(channel, i);

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = reader("spoilt")->read(position, lost);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(ring_test::checked_index(records.back()), 999);
}

} // namespace
