// Default platform: the exact bytes of the encodings, and bytes that are none.
#include "platform/ds_common.h"
#include "platform_default/platform_default.h"
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<std::uint8_t>;

// Every input is decoded from memory of exactly its size, so that a sanitizer sees a read beyond.
std::int32_t decode_attrs(const bytes &input, ds_service_attrs_t &attrs) {
    std::memset(&attrs, 0xff, sizeof attrs);
    const bytes exact(input);
    return vidl_ds_service_attrs_decode_ext(&attrs, exact.data(), exact.size(), std::malloc, 0, 0);
}

bool is_refused_and_zero(const bytes &input) {
    ds_service_attrs_t attrs;
    const std::int32_t consumed = decode_attrs(input, attrs);
    return consumed == -1 && attrs.attrs == nullptr && attrs.attrs_count == 0 &&
           attrs.presence[0] == 0;
}

const bytes one_attribute = {0xa1, 1, 0x03, 0, 0, 0, 2, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0};

TEST(DefaultCodec, an_attribute_list_has_the_documented_bytes) {
    ds_service_attr_t attribute = {};
    VIDL_SET(&attribute, type, DS_ATTR_BIT_TYPE, DS_ATTR_ISSU_ROLE);
    VIDL_SET(&attribute, value, DS_ATTR_BIT_VALUE, 5);
    ds_service_attrs_t attrs = {};
    VIDL_SET_ARRAY(&attrs, attrs, DS_ATTRS_BIT_ATTRS, &attribute, 1);
    bytes encoded(19);

    const std::int32_t used = vidl_ds_service_attrs_encode_ext(&attrs, encoded.data(), 19, 0, 0, 0);

    EXPECT_EQ(used, 19);
    EXPECT_EQ(encoded, one_attribute);
}

TEST(DefaultCodec, no_bytes_are_a_list_of_no_attributes) {
    ds_service_attrs_t attrs;
    std::memset(&attrs, 0xff, sizeof attrs);

    const std::int32_t consumed =
        vidl_ds_service_attrs_decode_ext(&attrs, nullptr, 0, std::malloc, 0, 0);

    EXPECT_EQ(consumed, 0);
    EXPECT_EQ(attrs.attrs, nullptr);
    EXPECT_EQ(attrs.attrs_count, 0u);
}

TEST(DefaultCodec, lists_that_are_cut_short_or_have_trailing_bytes_are_refused) {
    for (std::size_t length = 1; length < one_attribute.size(); length++)
        EXPECT_TRUE(is_refused_and_zero(
            {one_attribute.begin(), one_attribute.begin() + static_cast<long>(length)}))
            << length;
    bytes longer = one_attribute;
    longer.push_back(0);
    EXPECT_TRUE(is_refused_and_zero(longer));
}

TEST(DefaultCodec, lists_with_a_wrong_tag_count_or_presence_are_refused) {
    bytes wrong_tag = one_attribute;
    wrong_tag[0] = 0xa2;
    bytes no_attribute = {0xa1, 0};
    bytes wrong_count = one_attribute;
    wrong_count[1] = 2;
    bytes unknown_presence = one_attribute;
    unknown_presence[2] = 0x08;

    EXPECT_TRUE(is_refused_and_zero(wrong_tag));
    EXPECT_TRUE(is_refused_and_zero(no_attribute));
    EXPECT_TRUE(is_refused_and_zero(wrong_count));
    EXPECT_TRUE(is_refused_and_zero(unknown_presence));
}

TEST(DefaultCodec, the_65th_attribute_is_one_too_many_both_ways) {
    std::vector<ds_service_attr_t> list(65);
    ds_service_attrs_t attrs = {};
    VIDL_SET_ARRAY(&attrs, attrs, DS_ATTRS_BIT_ATTRS, list.data(), 65);
    bytes room(65 * 536);
    bytes stated(2 + 65 * 17, 0);
    stated[0] = 0xa1;
    stated[1] = 65;

    EXPECT_EQ(vidl_ds_service_attrs_encode_ext(&attrs, room.data(), 65 * 536, 0, 0, 0), -1);
    EXPECT_TRUE(is_refused_and_zero(stated));
}

TEST(DefaultCodec, encoding_refuses_null_arguments) {
    ds_service_attrs_t attrs = {};
    attrs.attrs_count = 1;
    std::uint8_t room[64];

    EXPECT_EQ(vidl_ds_service_attrs_encode_ext(nullptr, room, 64, 0, 0, 0), -1);
    EXPECT_EQ(vidl_ds_service_attrs_encode_ext(&attrs, room, 64, 0, 0, 0), -1);
    ds_service_attr_t attribute = {};
    attrs.attrs = &attribute;
    EXPECT_EQ(vidl_ds_service_attrs_encode_ext(&attrs, nullptr, 64, 0, 0, 0), -1);
    EXPECT_EQ(vidl_ds_service_attrs_decode_ext(nullptr, room, 64, std::malloc, 0, 0), -1);
    EXPECT_EQ(vidl_ds_service_attrs_decode_ext(&attrs, nullptr, 64, std::malloc, 0, 0), -1);
    EXPECT_EQ(vidl_ds_service_attrs_decode_ext(&attrs, one_attribute.data(), 19, nullptr, 0, 0),
              -1);
}

TEST(DefaultCodec, mutated_lists_never_decode_to_anything_but_themselves) {
    std::mt19937 random(99);
    int accepted = 0;
    for (int round = 0; round < 50'000; round++) {
        bytes input(2 + 17 * (1 + random() % 4));
        for (std::uint8_t &b : input)
            b = static_cast<std::uint8_t>(random() % 8);
        input[0] = random() % 16 == 0 ? input[0] : 0xa1;
        input.resize(input.size() - (random() % 4 == 0 ? random() % 20 % input.size() : 0));
        ds_service_attrs_t attrs;

        const std::int32_t consumed = decode_attrs(input, attrs);

        if (consumed < 0) {
            ASSERT_EQ(attrs.attrs, nullptr);
            continue;
        }
        accepted += consumed > 0;
        bytes again(input.size());
        const std::int32_t used = vidl_ds_service_attrs_encode_ext(
            &attrs, again.data(), static_cast<std::uint32_t>(again.size()), 0, 0, 0);
        std::free(attrs.attrs);
        ASSERT_EQ(used, consumed);
        ASSERT_EQ(again, input);
    }
    EXPECT_GT(accepted, 1000);
}

TEST(DefaultCodec, endpoints_have_the_documented_bytes) {
    bytes ip(8);
    bytes path(6);

    EXPECT_EQ(ds_encode_endpoint(0xc0000211, 0x1f90, ip.data(), 8), 8);
    EXPECT_EQ(ds_encode_path("/p", 2, path.data(), 6), 6);

    EXPECT_EQ(ip, (bytes{1, 0, 0x1f, 0x90, 192, 0, 2, 17}));
    EXPECT_EQ(path, (bytes{2, 0, 0, 2, '/', 'p'}));
}

TEST(DefaultCodec, endpoints_of_services_have_the_documented_bytes_and_decode_to_the_same) {
    bytes encoded(9);
    std::uint32_t address = 0, port = 0;
    vidl_vipc_endpoint_t endpoint;

    EXPECT_EQ(ds_encode_service_endpoint(0xc0000211, 0x1f90, 2, "a", 1, encoded.data(), 9), 9);

    EXPECT_EQ(encoded, (bytes{3, 2, 0x1f, 0x90, 192, 0, 2, 17, 'a'}));
    EXPECT_EQ(ds_decode_endpoint(encoded.data(), encoded.size(), &address, &port), 0);
    EXPECT_EQ(address, 0xc0000211);
    EXPECT_EQ(port, 0x1f90u);
    EXPECT_EQ(vidl_vipc_endpoint_decode_ext(&endpoint, encoded.data(), 9, std::malloc, 0, 0), 9);
    EXPECT_EQ(endpoint.port, 0x1f90u);
}

TEST(DefaultCodec, endpoints_that_cannot_be_encoded_are_refused) {
    const std::string longest(4000, 'x');
    const std::string too_long(4001, 'x');
    bytes room(DS_ENDPOINT_PATH_BYTES_MAX);

    EXPECT_EQ(ds_encode_endpoint(1, 65536, room.data(), 8), -1);
    EXPECT_EQ(ds_encode_endpoint(1, 1, room.data(), 7), -1);
    EXPECT_EQ(ds_encode_endpoint(1, 1, nullptr, 8), -1);
    EXPECT_EQ(ds_encode_service_endpoint(1, 1, 256, "", 0, room.data(), 8), -1);
    EXPECT_EQ(ds_encode_service_endpoint(1, 65536, 1, "", 0, room.data(), 8), -1);
    EXPECT_EQ(ds_encode_service_endpoint(1, 1, 1, "a", 1, room.data(), 8), -1);
    EXPECT_EQ(ds_encode_service_endpoint(1, 1, 1, nullptr, 0, room.data(), 8), -1);
    EXPECT_EQ(ds_encode_path(longest.data(), 4000, room.data(), DS_ENDPOINT_PATH_BYTES_MAX), 4004);
    EXPECT_EQ(ds_encode_path(too_long.data(), 4001, room.data(), DS_ENDPOINT_PATH_BYTES_MAX), -1);
    EXPECT_EQ(ds_encode_path("", 0, room.data(), 100), -1);
    EXPECT_EQ(ds_encode_path("a\0b", 3, room.data(), 100), -1);
    EXPECT_EQ(ds_encode_path("ab", 2, room.data(), 5), -1);
    EXPECT_EQ(ds_encode_path(nullptr, 2, room.data(), 100), -1);
    EXPECT_EQ(ds_encode_path("ab", 2, nullptr, 100), -1);
}

TEST(DefaultCodec, bytes_that_are_no_ip_endpoint_leave_every_output_alone) {
    const bytes wrong[] = {{},
                           {1},
                           {1, 0, 0, 80, 1, 2, 3},
                           {1, 0, 0, 80, 1, 2, 3, 4, 5},
                           {1, 1, 0, 80, 1, 2, 3, 4},
                           {2, 0, 0, 4, 1, 2, 3, 4},
                           {3, 1, 0, 80, 1, 2, 3},
                           {0, 0, 0, 80, 1, 2, 3, 4}};
    for (const bytes &input : wrong) {
        std::uint32_t address = 7;
        std::uint32_t port = 7;
        vidl_vipc_endpoint_t endpoint;
        std::memset(&endpoint, 0xff, sizeof endpoint);

        EXPECT_EQ(ds_decode_endpoint(input.data(), input.size(), &address, &port), -1);
        EXPECT_EQ(
            vidl_vipc_endpoint_decode_ext(&endpoint, input.data(), input.size(), std::malloc, 0, 0),
            -1);

        EXPECT_EQ(address + port, 14u);
        EXPECT_EQ(endpoint.port, 0u);
        EXPECT_EQ(endpoint.presence[0], 0);
    }
}

TEST(DefaultCodec, bytes_that_are_no_path_leave_the_output_all_zero) {
    const bytes wrong[] = {{},
                           {2},
                           {2, 0, 0},
                           {2, 0, 0, 0},
                           {2, 0, 0, 1},
                           {2, 0, 0, 2, '/'},
                           {2, 0, 0, 1, '/', 'x'},
                           {2, 0, 0, 2, '/', 0},
                           {2, 1, 0, 1, '/'},
                           {1, 0, 0, 1, '/'},
                           {2, 0, 0xff, 0xff, '/'}};
    for (const bytes &input : wrong) {
        vidl_ds_ep_path_t path;
        std::memset(&path, 0xff, sizeof path);

        const std::int32_t consumed =
            vidl_ds_ep_path_decode_ext(&path, input.data(), input.size(), std::malloc, 0, 0);

        EXPECT_EQ(consumed, -1);
        EXPECT_EQ(path.path, nullptr);
        EXPECT_EQ(path.presence[0], 0);
    }
}

TEST(DefaultCodec, a_path_without_memory_for_its_text_is_undecodable) {
    const bytes input = {2, 0, 0, 1, '/'};
    vidl_ds_ep_path_t path;
    std::memset(&path, 0xff, sizeof path);

    const std::int32_t consumed = vidl_ds_ep_path_decode_ext(
        &path, input.data(), input.size(), [](std::size_t) -> void * { return nullptr; }, 0, 0);

    EXPECT_EQ(consumed, -1);
    EXPECT_EQ(path.path, nullptr);
    EXPECT_EQ(path.presence[0], 0);
}

TEST(DefaultCodec, a_released_publish_info_has_no_entries_and_no_bits_left) {
    ds_service_publish_info info = {};
    VIDL_SET(&info, service_name, DS_PINFO_BIT_NAME, static_cast<char *>(std::calloc(1, 4)));
    VIDL_SET_ARRAY(&info, entries, DS_PINFO_BIT_ENTRIES,
                   static_cast<ds_service_info_t *>(std::calloc(1, sizeof(ds_service_info_t))), 1);

    vidl_ds_service_publish_info_free_ext(&info, std::free, 0);
    vidl_ds_service_publish_info_free_ext(nullptr, std::free, 0);
    vidl_ds_service_publish_info_free_ext(&info, nullptr, 0);

    EXPECT_EQ(info.entries_count, 0u);
    EXPECT_EQ(info.presence[0], 0);
}

} // namespace
