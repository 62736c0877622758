// A directory of its own for the ring files of one test, and records that check themselves.
#pragma once
#include "platform/rtrace.h"
#include "platform_default/platform_default.h"
#include "platform_default/ring_reader.h"
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace ring_test {

inline constexpr const char *format_id = "00112233445566778899aabbccddeeff";

class RingTest : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/ring_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        ASSERT_EQ(rtrace_set_directory(pattern), 0);
    }
    void TearDown() override {
        rtrace_close(channel);
        rtrace_set_directory(nullptr);
        std::filesystem::remove_all(directory);
    }

    int open(const char *name, std::uint32_t bytes) {
        return rtrace_open_internal(&channel, name, bytes, 87, "./some/source", format_id, 5);
    }
    std::string path(const char *name) const { return directory + "/" + name + ".ring"; }
    std::unique_ptr<ds::ring::Reader> reader(const char *name) {
        error.clear();
        return ds::ring::Reader::open(path(name), error);
    }

    std::string directory;
    std::string error;
    rtrace_handle_t channel = nullptr;
};

// Record i's arguments all follow from i, so that any mixture of two records shows.
inline std::string filling_of(std::uint32_t i) {
    return std::string(i % 97, static_cast<char>('a' + i % 26));
}

inline void write_checked(rtrace_handle_t channel, std::uint32_t i) {
    const std::uint64_t product = i * 0x9e3779b97f4a7c15u;
    rtrace_internal(channel, i % 87, 9, 1, "dDsD", "%d %ld %s %ld", static_cast<int>(i),
                    static_cast<long>(product), filling_of(i).c_str(), static_cast<long>(~product));
}

// The i of an intact record, -1 for any other.
inline std::int64_t checked_index(const ds::ring::Record &record) {
    if (record.arguments.size() != 4 || record.truncated) return -1;
    const auto *number = std::get_if<std::int32_t>(&record.arguments[0]);
    const auto *product = std::get_if<std::int64_t>(&record.arguments[1]);
    const auto *filling = std::get_if<std::string>(&record.arguments[2]);
    const auto *inverse = std::get_if<std::int64_t>(&record.arguments[3]);
    if (number == nullptr || product == nullptr || filling == nullptr || inverse == nullptr)
        return -1;
    const auto i = static_cast<std::uint32_t>(*number);
    const bool is_intact = record.point == i % 87 && *filling == filling_of(i) &&
                           static_cast<std::uint64_t>(*product) == i * 0x9e3779b97f4a7c15u &&
                           *inverse == ~*product;
    return is_intact ? static_cast<std::int64_t>(i) : -1;
}

} // namespace ring_test
