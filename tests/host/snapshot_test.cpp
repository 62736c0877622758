#include "host/snapshot.h"

#include <gtest/gtest.h>

#include "directory_fixture.h"

namespace ds::host {
namespace {

std::string encoded(ds_service_elem_t *element) {
    std::string out;
    encode_snapshot(element, out);
    return out;
}

ds_service_elem_t *element_of(const std::string &name) {
    return shared_server().directory().find(name);
}

// What the request, published as the generation-th change with that id, has to be told as.
v1::Instance expected_instance(const v1::Publish &publish, const v1::Reply &reply) {
    v1::Instance instance;
    instance.set_service_id(reply.service_id());
    instance.set_instance(publish.instance());
    instance.set_scope(publish.scope());
    instance.set_node(std::string("\x02\x10\x20\x30\x40\x50", 6));
    instance.set_local(true);
    *instance.mutable_endpoint() = publish.endpoint();
    instance.set_ha_role(publish.ha_role());
    instance.set_issu_role(publish.issu_role());
    instance.set_issu_id(publish.issu_id());
    instance.set_generation(reply.generation());
    instance.set_pid(static_cast<std::uint32_t>(getpid()));
    return instance;
}

TEST(Snapshot, its_bytes_are_those_that_protobuf_makes_of_the_same_state) {
    Client publisher;
    publisher.hello();
    v1::Request plain = publish_request("snapshot.bytes");
    v1::Request full = publish_request("snapshot.bytes", "caf\xc3\xa9");
    full.mutable_publish()->set_scope(v1::SCOPE_LOCAL);
    full.mutable_publish()->mutable_endpoint()->set_path("/run/" + std::string(3000, 'p'));
    full.mutable_publish()->set_ha_role(v1::HA_ROLE_ACTIVE);
    full.mutable_publish()->set_issu_role(v1::ISSU_ROLE_SECONDARY);
    full.mutable_publish()->set_issu_id(0xffffffff);
    v1::Snapshot expected;
    expected.set_name("snapshot.bytes");
    expected.set_version(3);

    publisher.call(full);
    const v1::Reply second = publisher.call(full);
    const v1::Reply third = publisher.call(plain);
    *expected.add_instances() = expected_instance(plain.publish(), third); // newest first
    *expected.add_instances() = expected_instance(full.publish(), second);

    EXPECT_EQ(second.generation(), 2u);
    EXPECT_EQ(encoded(element_of("snapshot.bytes")), expected.SerializeAsString());
}

TEST(Snapshot, a_name_without_services_is_told_with_its_name_and_version_only) {
    Client watcher;
    watcher.hello();
    watcher.call(register_request("snapshot.empty"));
    v1::Snapshot parsed;

    ASSERT_TRUE(parsed.ParseFromString(encoded(element_of("snapshot.empty"))));

    EXPECT_EQ(parsed.name(), "snapshot.empty");
    EXPECT_EQ(parsed.instances_size(), 0);
}

TEST(Snapshot, a_record_that_waits_for_its_publisher_is_left_out) {
    Client publisher;
    publisher.hello();
    publisher.call(publish_request("snapshot.placeholder", "a"));
    publisher.call(publish_request("snapshot.placeholder", "b"));
    ds_service_elem_t *element = element_of("snapshot.placeholder");
    ds_service_t *newest = ds_service_get_service_list_head(element);
    const std::uint32_t publisher_index = newest->proc_id;
    newest->proc_id = DS_PROC_ID_FROM_DSR;
    v1::Snapshot parsed;

    ASSERT_TRUE(parsed.ParseFromString(encoded(element)));
    newest->proc_id = publisher_index;

    ASSERT_EQ(parsed.instances_size(), 1);
    EXPECT_EQ(parsed.instances(0).instance(), "a");
}

TEST(SnapshotCache, an_element_is_encoded_once_until_it_is_cleared) {
    Client publisher;
    publisher.hello();
    publisher.call(publish_request("snapshot.cache"));
    publisher.call(publish_request("snapshot.cache.other"));
    ds_service_elem_t *element = element_of("snapshot.cache");
    SnapshotCache cache;
    const std::string before = cache.of(element);

    publisher.call(publish_request("snapshot.cache"));
    cache.of(element_of("snapshot.cache.other"));
    const std::string same_turn = cache.of(element);
    cache.clear();
    const std::string next_turn = cache.of(element);

    EXPECT_EQ(same_turn, before);
    EXPECT_EQ(next_turn, encoded(element));
    EXPECT_NE(next_turn, before);
}

TEST(Snapshot, a_publication_that_would_outgrow_a_frame_is_refused_and_a_change_is_not) {
    Client publisher;
    publisher.hello();
    v1::Request request = publish_request("snapshot.limit");
    request.mutable_publish()->set_scope(v1::SCOPE_LOCAL);
    request.mutable_publish()->mutable_endpoint()->set_path("/" + std::string(3999, 'p'));
    v1::Reply reply;
    int accepted = 0;
    for (;; accepted++) {
        request.mutable_publish()->set_instance("instance " + std::to_string(accepted));
        reply = publisher.call(request);
        if (reply.status() != v1::STATUS_OK || accepted > 1000) break;
    }

    request.mutable_publish()->set_instance("instance 0");
    const v1::Reply change = publisher.call(request);
    const std::string snapshot = encoded(element_of("snapshot.limit"));
    v1::Snapshot parsed;

    EXPECT_EQ(reply.status(), v1::STATUS_LIMIT);
    EXPECT_EQ(change.status(), v1::STATUS_OK);
    EXPECT_LE(snapshot.size(), snapshot_bytes_max);
    EXPECT_GT(snapshot.size(), snapshot_bytes_max - 8192);
    ASSERT_TRUE(parsed.ParseFromString(snapshot));
    EXPECT_EQ(parsed.instances_size(), accepted);
}

} // namespace
} // namespace ds::host
