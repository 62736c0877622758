// The frame: channels, global block, hash, fault record, and the two sinks of a log point.
#include <algorithm>
#include <cstdlib>
#include <regex>

#include "library_test.h"

namespace {

using recording::OpenedChannel;

class FrameTest : public LibraryTest {
  protected:
    void close_channels() {
        std::fill(std::begin(ds_lib_rtrace), std::end(ds_lib_rtrace), nullptr);
        first_ = recording::opened_channels().size();
    }
    // The channels opened since close_channels().
    std::vector<OpenedChannel> opened() const {
        const auto &all = recording::opened_channels();
        return {all.begin() + static_cast<std::ptrdiff_t>(first_), all.end()};
    }

  private:
    size_t first_ = 0;
};

const char *const channel_names[] = {"pub", "reg", "err", "notif", "main"};

} // namespace

TEST_F(FrameTest, init_opens_the_five_channels_in_order) {
    const uint32_t sizes[] = {0x100000, 0x100000, 0x40000, 0x100000, 0x10000};
    close_channels();

    const int result = ds_server_lib_init(nullptr);

    EXPECT_EQ(result, 0);
    const auto channels = opened();
    ASSERT_EQ(channels.size(), 5u);
    for (size_t index = 0; index < channels.size(); ++index) {
        EXPECT_EQ(channels[index].name, channel_names[index]);
        EXPECT_EQ(channels[index].buffer_size, sizes[index]);
        EXPECT_EQ(channels[index].point_count, 87u);
        EXPECT_EQ(channels[index].source_path,
                  "./quintare/shared_pkg/common/infra/directory_service/lib_ds_server");
        EXPECT_EQ(channels[index].option, 0u);
        EXPECT_NE(ds_lib_rtrace[index], nullptr);
    }
}

TEST_F(FrameTest, init_passes_each_channel_its_own_option) {
    const uint64_t options[5] = {1, 0xffffffffffffffff, 3, 0x100000000, 5};
    close_channels();

    EXPECT_EQ(ds_server_lib_init(options), 0);

    const auto channels = opened();
    ASSERT_EQ(channels.size(), 5u);
    for (size_t index = 0; index < 5; ++index)
        EXPECT_EQ(channels[index].option, options[index]);
}

TEST_F(FrameTest, all_channels_share_one_format_identifier_of_32_lower_case_hex_digits) {
    close_channels();

    ds_server_lib_init(nullptr);

    const std::regex hex_digits("[0-9a-f]{32}");
    for (const OpenedChannel &channel : opened()) {
        EXPECT_TRUE(std::regex_match(channel.format_id, hex_digits)) << channel.format_id;
        EXPECT_EQ(channel.format_id, opened()[0].format_id);
    }
}

TEST_F(FrameTest, init_stops_at_the_first_channel_that_does_not_open) {
    for (uint32_t failing = 1; failing <= 5; ++failing) {
        close_channels();
        recording::fail("rtrace_open_internal", failing, 7);
        testing::internal::CaptureStderr();

        const int result = ds_server_lib_init(nullptr);

        const std::string name = channel_names[failing - 1];
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "rtrace_open() " + name + " failed\n");
        EXPECT_EQ(result, 1);
        EXPECT_EQ(opened().size(), failing);
        for (uint32_t index = 0; index < 5; ++index)
            EXPECT_EQ(ds_lib_rtrace[index] != nullptr, index + 1 < failing) << index;
        recording::clear_faults();
    }
}

TEST_F(FrameTest, a_negative_open_result_is_a_failure_too) {
    close_channels();
    recording::fail("rtrace_open_internal", 1, -1);
    testing::internal::CaptureStderr();

    EXPECT_EQ(ds_server_lib_init(nullptr), 1);

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "rtrace_open() pub failed\n");
}

TEST_F(FrameTest, setting_the_block_returns_the_address_of_the_exported_pointer) {
    ds_globals_t other{};

    EXPECT_EQ(ds_globals_set(&other), &ds_globals_p);

    EXPECT_EQ(ds_globals_p, &other);
    EXPECT_EQ(ds_globals_get(), &other);
    EXPECT_EQ(ds_globals_set(nullptr), &ds_globals_p);
    EXPECT_EQ(ds_globals_get(), nullptr);
    ds_globals_set(&globals);
}

TEST_F(FrameTest, the_hash_of_no_bytes_is_5381) {
    EXPECT_EQ(ds_hash_string("", 0), 5381u);
    EXPECT_EQ(ds_hash_string("abc", 0), 5381u);
}

TEST_F(FrameTest, the_hash_multiplies_by_33_and_adds_each_byte) {
    EXPECT_EQ(ds_hash_string("a", 1), 177670u);
    EXPECT_EQ(ds_hash_string("ab", 2), 177670u * 33 + 'b');
}

TEST_F(FrameTest, the_hash_takes_bytes_as_unsigned) {
    const unsigned char bytes[] = {0xff, 0x80};

    EXPECT_EQ(ds_hash_string(bytes, 1), 5381u * 33 + 255);
    EXPECT_EQ(ds_hash_string(bytes, 2), (5381u * 33 + 255) * 33 + 128);
}

TEST_F(FrameTest, the_hash_does_not_stop_at_a_zero_byte) {
    EXPECT_EQ(ds_hash_string("a\0b", 3), (177670u * 33 + 0) * 33 + 'b');
}

TEST_F(FrameTest, the_hash_wraps_around_in_64_bits) {
    const std::string text(100, 'z');
    uint64_t expected = 5381;
    for (const char letter : text)
        expected = expected * 33 + static_cast<unsigned char>(letter);

    EXPECT_EQ(ds_hash_string(text.data(), text.size()), expected);
}

TEST_F(FrameTest, the_fault_record_holds_its_nine_words) {
    const zul_msg_rec_t *record = zul_msg_rec_directory_service_duplicated_service_getfn();

    ASSERT_EQ(record, &zul_msg_rec_directory_service_duplicated_service);
    EXPECT_EQ(record->word0, nullptr);
    EXPECT_STREQ(record->format, "Process %ld published service (%s/%s) from different DS handle.");
    EXPECT_EQ(record->word2, nullptr);
    EXPECT_STREQ(record->facility, "Directory_Service");
    EXPECT_STREQ(record->category, "INFRA");
    EXPECT_STREQ(record->mnemonic, "DUPLICATED_SERVICE");
    EXPECT_EQ(record->word6, 0x30000u);
    EXPECT_EQ(record->word7, 0u);
    EXPECT_EQ(record->word8, 0x113a0000u);
}

TEST_F(FrameTest, a_log_point_on_a_closed_channel_still_writes_the_console) {
    ds_lib_rtrace[DS_CHANNEL_MAIN] = nullptr;
    open_console();

    ds_db_dump(0);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_NE(console().find("[DS]: All services\n"), std::string::npos);
}

TEST_F(FrameTest, a_log_point_without_console_still_writes_its_trace_record) {
    ds_db_dump(0);

    EXPECT_EQ(recording::trace_ids(), (std::vector<uint32_t>{51, 52, 53}));
}

TEST_F(FrameTest, a_log_point_before_a_block_is_installed_writes_no_console_line) {
    open_console();
    ds_globals_set(nullptr);

    ds_db_dump(0);

    EXPECT_EQ(console(), "");
    ds_globals_set(&globals);
}

TEST_F(FrameTest, a_console_line_carries_time_thread_function_tag_and_a_blank_line) {
    setenv("TZ", "UTC", 1);
    tzset();
    recording::set_wall_clock({1700000000, 7999}); // 2023-11-14 22:13:20, 7.999 ms
    open_console();

    ds_db_dump(0);

    const std::string thread = std::to_string(static_cast<unsigned long>(pthread_self()));
    const std::string prefix = "11/14 22:13:20.007 " + thread + " ds_db_dump:";
    const std::string rule = "/" + thread + "] =========================\n\n";
    EXPECT_EQ(console(), prefix + "[DS_DUMP/" + thread + "] [DS]: All services\n\n" + prefix +
                             "[DS_DUMP_1" + rule + prefix + "[DS_DUMP_2" + rule);
}

TEST_F(FrameTest, a_console_line_pads_every_part_of_the_date_with_zeros) {
    setenv("TZ", "UTC", 1);
    tzset();
    recording::set_wall_clock({1704164645, 999999}); // 2024-01-02 03:04:05
    open_console();

    ds_db_reg_dump(0);

    EXPECT_TRUE(console().starts_with("01/02 03:04:05.999 ")) << console();
}

TEST_F(FrameTest, a_message_without_newline_ends_its_console_line_once) {
    ds_client_t *client = new_client(0x10, 100);
    ds_service_elem_t *selem = new_element("web");
    ds_service_t *service =
        new_service(selem, PublishInfoBuilder("web").endpoints(1), nullptr, nullptr, 1);
    open_console();

    ds_db_update_service(service, new_info(PublishInfoBuilder("web").endpoints(1)), client);

    EXPECT_TRUE(console().ends_with("[DS]: <<-Link service for client:0x10\n")) << console();
    EXPECT_FALSE(console().ends_with("\n\n"));
}

TEST_F(FrameTest, arguments_are_evaluated_once_per_active_sink) {
    ds_client_t *client = new_client(0x10, 100);
    ds_service_elem_t *selem = new_element("web");
    const auto pid_calls = [&] {
        recording::clear_calls();
        ds_db_delete_client_registration(new_registration(client, selem));
        return recording::calls_with({"slot46"}).size();
    };

    EXPECT_EQ(pid_calls(), 2u) << "trace only, two log points";
    open_console();
    EXPECT_EQ(pid_calls(), 4u) << "trace and console";
    ds_lib_rtrace[DS_CHANNEL_REG] = nullptr;
    EXPECT_EQ(pid_calls(), 2u) << "console only";
    close_console();
    EXPECT_EQ(pid_calls(), 0u) << "no sink";
}

TEST_F(FrameTest, the_trace_record_is_written_before_the_console_line) {
    ds_client_t *client = new_client(0x10, 100);
    ds_service_elem_t *selem = new_element("web");
    ds_client_reg_t *reg = new_registration(client, selem);
    open_console();
    recording::clear_calls();

    ds_db_delete_client_registration(reg);

    EXPECT_EQ(call_order({"slot46", "rtrace", "lock"}),
              (Lines{"slot46(0x10)", "rtrace_internal(reg, 7)", "slot46(0x10)", "lock()"}));
}
