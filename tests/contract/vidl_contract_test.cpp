// Codecs and the release of a publish info.
#include "contract_platform.h"
#include "platform/vidl.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

constexpr std::uint32_t bytes_per_attribute = 536;

ds_service_attr_t attribute(std::int32_t type, std::uint32_t value) {
    ds_service_attr_t result = {};
    VIDL_SET(&result, type, DS_ATTR_BIT_TYPE, type);
    VIDL_SET(&result, value, DS_ATTR_BIT_VALUE, value);
    return result;
}

ds_service_attrs_t container(std::vector<ds_service_attr_t> &list) {
    ds_service_attrs_t attrs = {};
    VIDL_SET_ARRAY(&attrs, attrs, DS_ATTRS_BIT_ATTRS, list.empty() ? nullptr : list.data(),
                   static_cast<std::uint32_t>(list.size()));
    return attrs;
}

TEST(VidlContract, a_list_of_no_attributes_encodes_to_nothing_in_no_room) {
    std::vector<ds_service_attr_t> none;
    const ds_service_attrs_t attrs = container(none);
    std::uint8_t untouched = 0x5a;

    const std::int32_t used = vidl_ds_service_attrs_encode_ext(&attrs, &untouched, 0, 0, 0, 0);

    EXPECT_EQ(used, 0);
    EXPECT_EQ(untouched, 0x5a);
}

TEST(VidlContract, attributes_come_back_as_they_were_and_fit_the_room_reserved_for_them) {
    for (const std::uint32_t count : {1u, 3u, 64u}) {
        std::vector<ds_service_attr_t> list;
        for (std::uint32_t i = 0; i < count; i++) {
            ds_service_attr_t next = attribute(static_cast<std::int32_t>(i) - 1, 0xfffffff0u + i);
            if (i % 2 == 0) VIDL_SET(&next, further, DS_ATTR_BIT_FURTHER, ~std::uint64_t{i});
            list.push_back(next);
        }
        const ds_service_attrs_t attrs = container(list);
        std::vector<std::uint8_t> bytes(count * bytes_per_attribute);

        const std::int32_t used = vidl_ds_service_attrs_encode_ext(
            &attrs, bytes.data(), static_cast<std::uint32_t>(bytes.size()), 0, 0, 0);
        ASSERT_GT(used, 0);
        ds_service_attrs_t decoded = {};
        const std::int32_t consumed = vidl_ds_service_attrs_decode_ext(
            &decoded, bytes.data(), static_cast<std::uint64_t>(used), std::malloc, 0, 0);

        ASSERT_EQ(consumed, used);
        ASSERT_EQ(decoded.attrs_count, count);
        EXPECT_TRUE(VIDL_PRESENT(&decoded, DS_ATTRS_BIT_ATTRS));
        for (std::uint32_t i = 0; i < count; i++) {
            EXPECT_EQ(decoded.attrs[i].type, list[i].type);
            EXPECT_EQ(decoded.attrs[i].value, list[i].value);
            EXPECT_EQ(decoded.attrs[i].further, list[i].further);
            EXPECT_EQ(decoded.attrs[i].presence[0], list[i].presence[0]);
        }
        std::free(decoded.attrs);
    }
}

TEST(VidlContract, an_encoding_never_exceeds_its_capacity) {
    std::vector<ds_service_attr_t> list = {attribute(1, 2), attribute(2, 3)};
    const ds_service_attrs_t attrs = container(list);
    std::vector<std::uint8_t> room(2 * bytes_per_attribute);
    const std::int32_t needed = vidl_ds_service_attrs_encode_ext(
        &attrs, room.data(), static_cast<std::uint32_t>(room.size()), 0, 0, 0);
    ASSERT_GT(needed, 1);

    std::vector<std::uint8_t> tight(static_cast<std::size_t>(needed) - 1);
    const std::int32_t used = vidl_ds_service_attrs_encode_ext(
        &attrs, tight.data(), static_cast<std::uint32_t>(tight.size()), 0, 0, 0);

    EXPECT_EQ(used, -1);
}

TEST(VidlContract, undecodable_attributes_leave_the_container_all_zero) {
    const std::vector<std::uint8_t> bytes(20, 0xee);
    ds_service_attrs_t decoded;
    std::memset(&decoded, 0xff, sizeof decoded);

    const std::int32_t consumed =
        vidl_ds_service_attrs_decode_ext(&decoded, bytes.data(), bytes.size(), std::malloc, 0, 0);

    EXPECT_EQ(consumed, -1);
    EXPECT_EQ(decoded.attrs, nullptr);
    EXPECT_EQ(decoded.attrs_count, 0u);
    EXPECT_EQ(decoded.presence[0], 0);
}

TEST(VidlContract, an_allocation_that_fails_makes_the_bytes_undecodable) {
    std::vector<ds_service_attr_t> list = {attribute(1, 2)};
    const ds_service_attrs_t attrs = container(list);
    std::vector<std::uint8_t> bytes(bytes_per_attribute);
    const std::int32_t used =
        vidl_ds_service_attrs_encode_ext(&attrs, bytes.data(), bytes_per_attribute, 0, 0, 0);
    ASSERT_GT(used, 0);
    ds_service_attrs_t decoded = {};

    const std::int32_t consumed = vidl_ds_service_attrs_decode_ext(
        &decoded, bytes.data(), static_cast<std::uint64_t>(used),
        [](std::size_t) -> void * { return nullptr; }, 0, 0);

    EXPECT_EQ(consumed, -1);
    EXPECT_EQ(decoded.attrs, nullptr);
    EXPECT_EQ(decoded.attrs_count, 0u);
}

TEST(VidlContract, an_ip_endpoint_gives_its_octets_in_printing_order) {
    const auto bytes = contract::ip_encoding({192, 0, 2, 17}, 8443);
    vidl_vipc_endpoint_t endpoint = {};

    const std::int32_t consumed =
        vidl_vipc_endpoint_decode_ext(&endpoint, bytes.data(), bytes.size(), std::malloc, 0, 0);

    EXPECT_EQ(consumed, static_cast<std::int32_t>(bytes.size()));
    EXPECT_EQ(endpoint.address[0], 192);
    EXPECT_EQ(endpoint.address[1], 0);
    EXPECT_EQ(endpoint.address[2], 2);
    EXPECT_EQ(endpoint.address[3], 17);
    EXPECT_EQ(endpoint.port, 8443u);
}

TEST(VidlContract, a_path_endpoint_gives_its_text) {
    const auto bytes = contract::path_encoding("/run/service.sock");
    vidl_ds_ep_path_t path = {};

    const std::int32_t consumed =
        vidl_ds_ep_path_decode_ext(&path, bytes.data(), bytes.size(), std::malloc, 0, 0);

    EXPECT_EQ(consumed, static_cast<std::int32_t>(bytes.size()));
    ASSERT_NE(path.path, nullptr);
    EXPECT_STREQ(path.path, "/run/service.sock");
    std::free(path.path);
}

TEST(VidlContract, neither_endpoint_codec_takes_the_other_encoding) {
    const auto ip = contract::ip_encoding({10, 0, 0, 1}, 80);
    const auto path = contract::path_encoding("/p");
    vidl_vipc_endpoint_t endpoint = {};
    vidl_ds_ep_path_t text = {};

    EXPECT_EQ(vidl_vipc_endpoint_decode_ext(&endpoint, path.data(), path.size(), std::malloc, 0, 0),
              -1);
    EXPECT_EQ(vidl_ds_ep_path_decode_ext(&text, ip.data(), ip.size(), std::malloc, 0, 0), -1);
    EXPECT_EQ(endpoint.port, 0u);
    EXPECT_EQ(endpoint.presence[0], 0);
    EXPECT_EQ(text.path, nullptr);
}

template <typename T> T *heap(std::size_t count) {
    return static_cast<T *>(std::calloc(count, sizeof(T)));
}

std::vector<void *> released;

void release_and_note(void *memory) {
    if (memory == nullptr) return;
    released.push_back(memory);
    std::free(memory);
}

TEST(VidlContract, releasing_a_publish_info_frees_every_pointer_once_whatever_the_bits_say) {
    ds_service_publish_info info = {};
    info.service_name = heap<char>(8);
    info.entries = heap<ds_service_info_t>(2);
    info.entries_count = 2;
    info.entries[0].ep_addr = heap<std::uint8_t>(8);
    info.entries[0].instance = heap<char>(4);
    info.entries[1].attrs = heap<ds_service_attr_t>(3);
    info.entries[1].attrs_count = 3;
    std::vector<void *> expected = {info.service_name, info.entries, info.entries[0].ep_addr,
                                    info.entries[0].instance, info.entries[1].attrs};
    released.clear();

    vidl_ds_service_publish_info_free_ext(&info, release_and_note, 0);

    std::sort(expected.begin(), expected.end());
    std::sort(released.begin(), released.end());
    EXPECT_EQ(released, expected);
    EXPECT_EQ(info.service_name, nullptr);
    EXPECT_EQ(info.entries, nullptr);
}

TEST(VidlContract, an_empty_publish_info_has_nothing_to_release_and_keeps_its_markers) {
    ds_service_publish_info info = {};
    info.held = 1;
    info.borrowed = 1;
    released.clear();

    vidl_ds_service_publish_info_free_ext(&info, release_and_note, 0);

    EXPECT_TRUE(released.empty());
    EXPECT_EQ(info.held, 1);
    EXPECT_EQ(info.borrowed, 1);
}

} // namespace
