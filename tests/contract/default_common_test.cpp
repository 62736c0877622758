// Default platform: printable names, null outputs, the installed sender, list and copy corners.
#include "platform/dbly.h"
#include "platform/ds_common.h"
#include "platform/dsr.h"
#include "platform/fts.h"
#include "platform/mem.h"
#include "platform_default/platform_default.h"
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(DefaultCommon, an_instance_prints_behind_a_slash_and_without_its_terminator) {
    EXPECT_STREQ(ds_service_instance_name("name", "a;"), "name/a");
    EXPECT_STREQ(ds_service_instance_name("name", "a"), "name/a");
    EXPECT_STREQ(ds_service_instance_name("name", "a;;"), "name/a;");
    EXPECT_STREQ(ds_service_instance_name("name", ";"), "name");
    EXPECT_STREQ(ds_service_instance_name("name", ""), "name");
    EXPECT_STREQ(ds_service_instance_name("name", nullptr), "name");
    EXPECT_STREQ(ds_service_instance_name(nullptr, "a;"), "/a");
    EXPECT_STREQ(ds_service_instance_name(nullptr, nullptr), "");
}

TEST(DefaultCommon, control_characters_print_as_question_marks) {
    EXPECT_STREQ(ds_service_instance_name("a\nb\x1b", "c\x7f;"), "a?b?/c?");
}

TEST(DefaultCommon, the_longest_accepted_names_print_in_full) {
    const std::string name(255, 'n');
    const std::string instance = std::string(254, 'i') + ";";

    EXPECT_EQ(ds_service_instance_name(name.c_str(), instance.c_str()),
              name + "/" + std::string(254, 'i'));
}

TEST(DefaultCommon, names_beyond_that_end_in_an_ellipsis_and_harm_no_later_call) {
    const std::string endless(100'000, 'x');

    const std::string printed = ds_service_instance_name(endless.c_str(), endless.c_str());

    EXPECT_LT(printed.size(), 600u);
    EXPECT_EQ(printed.substr(printed.size() - 4), "x...");
    EXPECT_STREQ(ds_service_instance_name("short", nullptr), "short");
}

TEST(DefaultCommon, accessors_accept_null_infos_and_null_outputs) {
    ds_service_info_t entry = {};
    ds_service_publish_info info = {};
    info.entries = &entry;
    info.entries_count = 1;
    const std::uint8_t encoded[] = {1, 0, 0, 80, 1, 2, 3, 4};

    EXPECT_EQ(ds_get_service_publish_info_at_v5(&info, 0, nullptr, nullptr, nullptr, nullptr,
                                                nullptr, nullptr),
              0);
    EXPECT_EQ(ds_get_service_publish_info_at(nullptr, 0, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(ds_get_service_ep_type_at(nullptr, 0), 0u);
    EXPECT_EQ(ds_get_service_ep_type_at(&info, 1), 0u);
    EXPECT_EQ(ds_get_scope(nullptr), 0u);
    EXPECT_EQ(ds_get_instance(nullptr), nullptr);
    EXPECT_EQ(ds_decode_endpoint(encoded, sizeof encoded, nullptr, nullptr), 0);
}

TEST(DefaultCommon, entries_that_are_counted_but_missing_are_not_read) {
    ds_service_publish_info info = {};
    info.entries_count = 1;

    EXPECT_EQ(ds_get_scope(&info), 0u);
    EXPECT_EQ(ds_get_service_publish_info_at(&info, 0, nullptr, nullptr, nullptr), -1);
}

struct kept_update {
    int calls = 0;
    dsr_update_t update = {};
};

int keep_update(void *ctx, const dsr_update_t *update) {
    auto *kept = static_cast<kept_update *>(ctx);
    kept->calls++;
    kept->update = *update;
    return 42;
}

TEST(DefaultRelay, an_update_reaches_the_installed_sender_whole_and_its_result_comes_back) {
    kept_update kept;
    const char ep[] = "ep";
    const char attr[] = "attr";
    dsr_set_sender(keep_update, &kept);

    const int result =
        dsr_dsc_send_update(DSR_MODIFY, "name", 11, "instance", 2, 33, 44, ep, 2, attr, 4, 0);

    dsr_set_sender(nullptr, nullptr);
    EXPECT_EQ(result, 42);
    EXPECT_EQ(kept.calls, 1);
    EXPECT_EQ(kept.update.operation, static_cast<std::uint32_t>(DSR_MODIFY));
    EXPECT_STREQ(kept.update.service_name, "name");
    EXPECT_EQ(kept.update.service_id, 11u);
    EXPECT_STREQ(kept.update.instance, "instance");
    EXPECT_EQ(kept.update.scope, 2u);
    EXPECT_EQ(kept.update.pid, 33u);
    EXPECT_EQ(kept.update.version, 44u);
    EXPECT_EQ(kept.update.ep_bytes, ep);
    EXPECT_EQ(kept.update.ep_len, 2u);
    EXPECT_EQ(kept.update.attr_bytes, attr);
    EXPECT_EQ(kept.update.attr_len, 4u);
}

TEST(DefaultRelay, without_a_sender_an_update_is_dropped_with_an_error) {
    EXPECT_EQ(dsr_dsc_send_update(DSR_ADD, "name", 1, nullptr, 2, 3, 4, nullptr, 0, nullptr, 0, 0),
              -1);
}

TEST(DefaultServices, stamps_are_nanoseconds_of_the_monotonic_clock) {
    timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    const std::uint64_t stamp = fts_get_stamp_fast();
    clock_gettime(CLOCK_MONOTONIC, &after);

    const auto ns = [](const timespec &t) {
        return static_cast<std::uint64_t>(t.tv_sec) * 1'000'000'000u +
               static_cast<std::uint64_t>(t.tv_nsec);
    };
    EXPECT_GE(stamp, ns(before));
    EXPECT_LE(stamp, ns(after));
}

TEST(DefaultServices, a_copy_of_nothing_is_memory_that_can_be_freed) {
    void *copy = memdup("", 0);

    EXPECT_NE(copy, nullptr);
    EXPECT_EQ(memdup(nullptr, 4), nullptr);
    std::free(copy);
}

TEST(DefaultServices, null_linkages_and_heads_are_left_alone) {
    dbly_head_t head = {};
    dbly_linkage_t member = {};
    dbly_linkage_link(&head, &member);

    dbly_linkage_link(nullptr, &member);
    dbly_linkage_link(&head, nullptr);
    dbly_linkage_delink(nullptr);
    dbly_linkage_delink(&head);

    EXPECT_EQ(head.next, &member);
    EXPECT_EQ(member.prev, &head);
}

} // namespace
