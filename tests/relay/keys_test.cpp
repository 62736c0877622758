#include <gtest/gtest.h>

#include "relay/etcd/keys.h"

#include "tests/relay/updates.h"

using namespace ds::relay;
using namespace ds::relay::etcd;
using relay_test::node;
using relay_test::update_of;

namespace {

const Keys keys("lab", "r1");

} // namespace

TEST(keys, of_the_epoch_a_node_and_its_probe_have_the_documented_form) {
    EXPECT_EQ(keys.epoch(), "/ds/v1/lab/epoch");
    EXPECT_EQ(keys.node(node(10)), "/ds/v1/lab/nodes/02:00:00:00:00:0a");
    EXPECT_EQ(keys.probe(node(1)), "/ds/v1/lab/probe/02:00:00:00:00:01");
}

TEST(keys, of_entries_tell_scope_node_id_name_and_instance) {
    Update update = update_of("web", 0x58010000);
    update.instance = "node1;";

    EXPECT_EQ(keys.entry(node(1), update),
              "/ds/v1/lab/system/02:00:00:00:00:01/58010000/web;node1;");
    update.scope = DSR_SCOPE_RACK;
    update.instance.reset();
    EXPECT_EQ(keys.entry(node(1), update), "/ds/v1/lab/rack/r1/02:00:00:00:00:01/58010000/web");
}

TEST(keys, are_read_back_as_they_were_made) {
    for (const char *instance : {"", ";", "a/b;", "x"})
        for (const std::uint32_t scope : {DSR_SCOPE_RACK, DSR_SCOPE_SYSTEM}) {
            Update update = update_of("a/name with/slashes", 7);
            update.instance = instance;
            update.scope = scope;

            const auto entry = keys.parse_entry(keys.entry(node(3), update));

            ASSERT_TRUE(entry);
            EXPECT_EQ(entry->node, node(3));
            EXPECT_EQ(entry->scope, scope);
            EXPECT_EQ(entry->rack, scope == DSR_SCOPE_RACK ? "r1" : "");
            EXPECT_EQ(entry->service_id, 7u);
            EXPECT_EQ(entry->name, update.name);
            EXPECT_EQ(entry->instance, update.instance);
        }
}

TEST(keys, without_an_instance_differ_from_those_with_an_empty_one) {
    Update none = update_of("web", 1);
    none.instance.reset();
    Update empty = none;
    empty.instance = "";

    EXPECT_NE(keys.entry(node(1), none), keys.entry(node(1), empty));
    EXPECT_FALSE(keys.parse_entry(keys.entry(node(1), none))->instance.has_value());
}

TEST(keys, of_another_form_are_none) {
    for (const char *key :
         {"", "/ds/v1/lab/", "/ds/v1/other/system/02:00:00:00:00:01/00000001/web",
          "/ds/v1/lab/system/02:00:00:00:00:01/00000001", "/ds/v1/lab/system/x/00000001/web",
          "/ds/v1/lab/system/02:00:00:00:00:01/0000001/web",
          "/ds/v1/lab/system/02:00:00:00:00:01/0000000G/web",
          "/ds/v1/lab/system/02:00:00:00:00:01/0000000A/web",
          "/ds/v1/lab/system/00:00:00:00:00:00/00000001/web",
          "/ds/v1/lab/rack//02:00:00:00:00:01/00000001/web", "/ds/v1/lab/rack/r1/00000001/web"})
        EXPECT_FALSE(keys.parse_entry(key)) << key;
    for (const char *key :
         {"/ds/v1/lab/nodes/", "/ds/v1/lab/nodes/02:00:00:00:00:1",
          "/ds/v1/lab/nodes/02:00:00:00:00:0A", "/ds/v1/lab/nodes/02-00:00:00:00:0a"})
        EXPECT_FALSE(keys.parse_node(key)) << key;
}

TEST(keys, of_a_range_are_those_with_its_prefix) {
    const KeyRange entries = keys.rack_entries_of("r1", node(1));
    const KeyRange nodes = keys.epoch_and_nodes();

    EXPECT_EQ(entries.begin, "/ds/v1/lab/rack/r1/02:00:00:00:00:01/");
    EXPECT_EQ(entries.end, "/ds/v1/lab/rack/r1/02:00:00:00:00:010");
    EXPECT_EQ(nodes.begin, "/ds/v1/lab/epoch");
    EXPECT_EQ(nodes.end, "/ds/v1/lab/nodes0");
}
