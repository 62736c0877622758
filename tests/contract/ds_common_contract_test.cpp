// Accessors of a publish info.
#include "contract_platform.h"
#include "platform/ds_common.h"
#include <gtest/gtest.h>
#include <string>

namespace {

class DsCommonContract : public testing::Test {
  protected:
    void SetUp() override {
        VIDL_SET(&entries[0], ep_type, DS_SINFO_BIT_EP_TYPE, DS_EP_TYPE_PATH);
        VIDL_SET_BYTES(&entries[0], ep_addr, DS_SINFO_BIT_EP_ADDR, bytes, sizeof bytes);
        VIDL_SET(&entries[0], scope, DS_SINFO_BIT_SCOPE, 3);
        VIDL_SET(&entries[0], instance, DS_SINFO_BIT_INSTANCE, instance);
        VIDL_SET(&entries[1], scope, DS_SINFO_BIT_SCOPE, 2);
        attributes[0].type = DS_ATTR_ISSU_ID;
        attributes[0].value = 77;
        attributes[1].type = DS_ATTR_HA_ROLE;
        attributes[1].value = 2;
        VIDL_SET_ARRAY(&entries[1], attrs, DS_SINFO_BIT_ATTRS, attributes, 2);
        VIDL_SET_ARRAY(&info, entries, DS_PINFO_BIT_ENTRIES, entries, 2);
    }

    std::uint8_t bytes[4] = {1, 2, 3, 4};
    char instance[4] = "one";
    ds_service_attr_t attributes[2] = {};
    ds_service_info_t entries[2] = {};
    ds_service_publish_info info = {};
    const ds_service_publish_info empty = {};
};

TEST_F(DsCommonContract, scope_and_instance_are_those_of_the_first_entry) {
    EXPECT_EQ(ds_get_scope(&info), 3u);
    EXPECT_STREQ(ds_get_instance(&info), "one");
}

TEST_F(DsCommonContract, an_info_without_entries_has_neither) {
    EXPECT_EQ(ds_get_scope(&empty), 0u);
    EXPECT_EQ(ds_get_instance(&empty), nullptr);
    EXPECT_EQ(ds_get_service_endpoint_count(&empty), 0u);
    EXPECT_EQ(ds_get_service_endpoint_count(nullptr), 0u);
}

TEST_F(DsCommonContract, an_entry_whose_instance_is_not_present_has_none) {
    VIDL_CLR_BIT(&entries[0], DS_SINFO_BIT_INSTANCE);

    EXPECT_EQ(ds_get_instance(&info), nullptr);
}

TEST_F(DsCommonContract, endpoints_are_counted_and_typed) {
    EXPECT_EQ(ds_get_service_endpoint_count(&info), 2u);
    EXPECT_EQ(ds_get_service_ep_type_at(&info, 0), static_cast<std::uint32_t>(DS_EP_TYPE_PATH));
    EXPECT_EQ(ds_get_service_ep_type_at(&info, 1), static_cast<std::uint32_t>(DS_EP_TYPE_IP));
}

TEST_F(DsCommonContract, endpoint_bytes_alias_the_info) {
    const std::uint8_t *ep = nullptr;
    std::uint64_t length = 0;
    std::uint32_t scope = 0;

    const int result = ds_get_service_publish_info_at(&info, 0, &ep, &length, &scope);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(ep, bytes);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(scope, 3u);
}

TEST_F(DsCommonContract, roles_come_from_the_attributes_and_absent_ones_read_zero) {
    const std::uint8_t *ep = bytes;
    std::uint64_t length = 9;
    std::uint32_t scope = 9, ha_role = 9, issu_role = 9, issu_id = 9;

    EXPECT_EQ(ds_get_service_publish_info_at_v2(&info, 1, &ep, &length, &scope, &ha_role), 0);
    EXPECT_EQ(ha_role, 2u);
    EXPECT_EQ(ds_get_service_publish_info_at_v5(&info, 1, &ep, &length, &scope, &ha_role,
                                                &issu_role, &issu_id),
              0);

    EXPECT_EQ(ep, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(scope, 2u);
    EXPECT_EQ(ha_role, 2u);
    EXPECT_EQ(issu_role, 0u);
    EXPECT_EQ(issu_id, 77u);
}

TEST_F(DsCommonContract, an_index_beyond_the_entries_leaves_the_outputs_untouched) {
    const std::uint8_t *ep = bytes;
    std::uint64_t length = 9;
    std::uint32_t scope = 9, ha_role = 9, issu_role = 9, issu_id = 9;

    EXPECT_EQ(ds_get_service_publish_info_at(&info, 2, &ep, &length, &scope), -1);
    EXPECT_EQ(ds_get_service_publish_info_at_v2(&info, 2, &ep, &length, &scope, &ha_role), -1);
    EXPECT_EQ(ds_get_service_publish_info_at_v5(&info, 2, &ep, &length, &scope, &ha_role,
                                                &issu_role, &issu_id),
              -1);

    EXPECT_EQ(ep, bytes);
    EXPECT_EQ(length + scope + ha_role + issu_role + issu_id, 45u);
}

TEST_F(DsCommonContract, an_ip_endpoint_decodes_with_the_first_octet_most_significant) {
    const auto encoded = contract::ip_encoding({192, 0, 2, 17}, 65535);
    std::uint32_t address = 0;
    std::uint32_t port = 0;

    const int result = ds_decode_endpoint(encoded.data(), encoded.size(), &address, &port);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(address, 0xc0000211u);
    EXPECT_EQ(port, 65535u);
}

TEST_F(DsCommonContract, a_path_or_nothing_at_all_is_no_ip_endpoint) {
    const auto path = contract::path_encoding("/run/x");
    std::uint32_t address = 1;
    std::uint32_t port = 2;

    EXPECT_NE(ds_decode_endpoint(path.data(), path.size(), &address, &port), 0);
    EXPECT_NE(ds_decode_endpoint(nullptr, 0, &address, &port), 0);
}

TEST_F(DsCommonContract, the_printable_name_holds_the_name_and_the_instance) {
    const std::string without = ds_service_instance_name("printer", nullptr);
    const std::string with = ds_service_instance_name("printer", "second");

    EXPECT_EQ(without, "printer");
    EXPECT_EQ(with.rfind("printer", 0), 0u);
    EXPECT_NE(with.find("second"), std::string::npos);
    EXPECT_NE(ds_service_instance_name(nullptr, nullptr), nullptr);
}

} // namespace
