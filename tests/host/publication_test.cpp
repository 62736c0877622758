#include "host/publication.h"

#include <gtest/gtest.h>

#include <set>

#include "directory_fixture.h"

namespace ds::host {
namespace {

std::uint32_t attribute(const ds_service_info_t &entry, std::int32_t type) {
    for (std::uint32_t i = 0; i < entry.attrs_count; i++) {
        const ds_service_attr_t &found = entry.attrs[i];
        if (found.type == type && VIDL_PRESENT(&found, DS_ATTR_BIT_TYPE) != 0 &&
            VIDL_PRESENT(&found, DS_ATTR_BIT_VALUE) != 0)
            return found.value;
    }
    return 0;
}

TEST(PublishInfo, an_address_becomes_one_entry_with_all_fields_present) {
    v1::Publish publish = a_publication("web", "node1");
    publish.set_ha_role(v1::HA_ROLE_STANDBY);
    publish.set_issu_role(v1::ISSU_ROLE_TERTIARY);
    publish.set_issu_id(7);

    const PublishInfo info = make_publish_info(publish);

    ASSERT_EQ(info->entries_count, 1u);
    const ds_service_info_t &entry = info->entries[0];
    EXPECT_STREQ(info->service_name, "web");
    EXPECT_STREQ(entry.instance, "node1;");
    EXPECT_EQ(entry.ep_type, static_cast<std::uint32_t>(DS_EP_TYPE_IP));
    EXPECT_EQ(ds_get_scope(info.get()), 2u);
    std::uint32_t address = 0, port = 0;
    EXPECT_EQ(ds_decode_endpoint(entry.ep_addr, entry.ep_addr_len, &address, &port), 0);
    EXPECT_EQ(address, 0x0a000001u);
    EXPECT_EQ(port, 8080u);
    EXPECT_EQ(attribute(entry, DS_ATTR_HA_ROLE), 2u);
    EXPECT_EQ(attribute(entry, DS_ATTR_ISSU_ROLE), 3u);
    EXPECT_EQ(attribute(entry, DS_ATTR_ISSU_ID), 7u);
    for (const int bit : {DS_SINFO_BIT_EP_TYPE, DS_SINFO_BIT_EP_ADDR, DS_SINFO_BIT_SCOPE,
                          DS_SINFO_BIT_ATTRS, DS_SINFO_BIT_INSTANCE})
        EXPECT_EQ(VIDL_PRESENT(&entry, bit), 1u) << bit;
    EXPECT_EQ(info->held, 0);
    EXPECT_EQ(info->borrowed, 0);
}

TEST(PublishInfo, roles_of_zero_are_left_out) {
    v1::Publish publish = a_publication("web");
    const PublishInfo without = make_publish_info(publish);
    publish.set_issu_id(1);

    const PublishInfo with_one = make_publish_info(publish);

    EXPECT_EQ(without->entries[0].attrs, nullptr);
    EXPECT_EQ(VIDL_PRESENT(&without->entries[0], DS_SINFO_BIT_ATTRS), 0u);
    EXPECT_EQ(with_one->entries[0].attrs_count, 1u);
    EXPECT_STREQ(without->entries[0].instance, ";");
}

TEST(PublishInfo, the_longest_path_is_encoded_whole) {
    v1::Publish publish = a_publication("web");
    const std::string path = "/" + std::string(3999, 'p');
    publish.set_scope(v1::SCOPE_LOCAL);
    publish.mutable_endpoint()->set_path(path);

    const PublishInfo info = make_publish_info(publish);

    const ds_service_info_t &entry = info->entries[0];
    vidl_ds_ep_path_t decoded = {};
    ASSERT_GE(
        vidl_ds_ep_path_decode_ext(&decoded, entry.ep_addr, entry.ep_addr_len, std::malloc, 0, 0),
        0);
    EXPECT_EQ(decoded.path, path);
    std::free(decoded.path);
}

struct Refusal {
    const char *symptom;
    void (*spoil)(v1::Publish &publish);
    const char *text;
};

const Refusal refusals[] = {
    {"empty_name", [](v1::Publish &p) { p.set_name(""); }, "name is empty"},
    {"long_instance", [](v1::Publish &p) { p.set_instance(std::string(255, 'i')); },
     "instance has 255 bytes"},
    {"scope_none", [](v1::Publish &p) { p.set_scope(v1::SCOPE_NONE); }, "scope is 0"},
    {"scope_unknown", [](v1::Publish &p) { p.set_scope(static_cast<v1::Scope>(4)); }, "scope is 4"},
    {"scope_negative", [](v1::Publish &p) { p.set_scope(static_cast<v1::Scope>(-1)); },
     "scope is -1"},
    {"no_endpoint", [](v1::Publish &p) { p.clear_endpoint(); }, "endpoint is missing"},
    {"empty_endpoint", [](v1::Publish &p) { p.mutable_endpoint()->clear_kind(); },
     "endpoint is missing"},
    {"port_zero", [](v1::Publish &p) { p.mutable_endpoint()->mutable_ipv4()->set_port(0); },
     "endpoint.ipv4.port is 0; 1 to 65535"},
    {"port_large", [](v1::Publish &p) { p.mutable_endpoint()->mutable_ipv4()->set_port(65536); },
     "endpoint.ipv4.port is 65536"},
    {"path_beyond_node", [](v1::Publish &p) { p.mutable_endpoint()->set_path("/a"); },
     "the scope has to be LOCAL"},
    {"path_relative",
     [](v1::Publish &p) {
         p.set_scope(v1::SCOPE_LOCAL);
         p.mutable_endpoint()->set_path("a/b");
     },
     "does not begin with '/'"},
    {"path_long",
     [](v1::Publish &p) {
         p.set_scope(v1::SCOPE_LOCAL);
         p.mutable_endpoint()->set_path("/" + std::string(4000, 'a'));
     },
     "endpoint.path has 4001 bytes"},
    {"ha_role", [](v1::Publish &p) { p.set_ha_role(static_cast<v1::HaRole>(3)); }, "ha_role is 3"},
    {"issu_role", [](v1::Publish &p) { p.set_issu_role(static_cast<v1::IssuRole>(-2)); },
     "issu_role is -2"},
};

TEST(Publication, what_is_out_of_range_is_refused_with_a_sentence_that_names_it) {
    ASSERT_EQ(check_publication(a_publication("web", "node1")), "");
    for (const Refusal &refusal : refusals) {
        v1::Publish publish = a_publication("web", "node1");
        refusal.spoil(publish);

        const std::string text = check_publication(publish);

        EXPECT_NE(text.find(refusal.text), std::string::npos) << refusal.symptom << ": " << text;
        EXPECT_TRUE(text.ends_with('.')) << text;
    }
}

} // namespace
} // namespace ds::host
