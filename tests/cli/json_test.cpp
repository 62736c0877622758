#include "cli/json.h"

#include <gtest/gtest.h>

#include "cli/endpoint.h"

namespace ds::cli {
namespace {

v1::Snapshot make_snapshot() {
    v1::Snapshot snapshot;
    snapshot.set_name("we\"b");
    snapshot.set_version(9'007'199'254'740'993); // what a double cannot hold
    v1::Instance *instance = snapshot.add_instances();
    instance->set_service_id(26);
    instance->set_instance("blue\n");
    instance->set_scope(v1::SCOPE_SYSTEM);
    instance->set_node(std::string("\x02\x00\x00\x00\x00\x01", 6));
    instance->set_local(true);
    instance->set_ha_role(v1::HA_ROLE_ACTIVE);
    instance->set_generation(3);
    instance->set_pid(4711);
    EXPECT_FALSE(parse_endpoint("10.0.0.1:80", *instance->mutable_endpoint()));
    return snapshot;
}

TEST(JsonOutput, a_line_is_one_object_and_reads_back) {
    const std::string line = json_line(snapshot_json(make_snapshot()));

    ASSERT_EQ(line.find('\n'), line.size() - 1);
    const Json json = Json::parse(line);
    EXPECT_EQ(json["name"], "we\"b");
    EXPECT_EQ(json["version"], 9'007'199'254'740'993u);
    EXPECT_EQ(json["instances"].size(), 1u);
}

TEST(JsonOutput, an_instance_carries_every_field) {
    const v1::Snapshot snapshot = make_snapshot();

    const std::string line = json_line(instance_json(snapshot.name(), snapshot.instances(0)));

    EXPECT_EQ(line, R"({"name":"we\"b","instance":"blue\n","scope":"SYSTEM",)"
                    R"("endpoint":"10.0.0.1:80","ha_role":"ACTIVE","issu_role":null,"issu_id":0,)"
                    R"("node":"02:00:00:00:00:01","local":true,"id":26,"generation":3,"pid":4711})"
                    "\n");
}

TEST(JsonOutput, text_that_is_not_utf8_does_not_make_the_document_invalid) {
    v1::Instance instance;
    instance.set_instance("\xff");

    const Json json = Json::parse(json_line(instance_json("web", instance)));

    EXPECT_EQ(json["instance"], "\ufffd");
}

TEST(JsonOutput, a_status_without_a_trace_directory_says_null) {
    v1::StatusReply status;
    status.set_sessions(2);
    status.set_relay("none");

    const Json json = status_json(status, 0);

    EXPECT_TRUE(json["trace_directory"].is_null());
    EXPECT_EQ(json["sessions"], 2u);
    EXPECT_EQ(json["relay"], "none");
    EXPECT_TRUE(json["relay_status"].is_null());
}

} // namespace
} // namespace ds::cli
