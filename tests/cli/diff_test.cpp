#include "cli/diff.h"

#include <gtest/gtest.h>

#include "cli/endpoint.h"

namespace ds::cli {
namespace {

v1::Instance make_instance(std::uint32_t id, const char *endpoint, std::uint32_t generation = 1) {
    v1::Instance instance;
    instance.set_service_id(id);
    instance.set_node("\x02\x01\x01\x01\x01\x01");
    instance.set_generation(generation);
    EXPECT_FALSE(parse_endpoint(endpoint, *instance.mutable_endpoint()));
    return instance;
}

v1::Snapshot make_snapshot(const std::vector<v1::Instance> &instances) {
    v1::Snapshot snapshot;
    snapshot.set_name("web");
    for (const v1::Instance &instance : instances)
        *snapshot.add_instances() = instance;
    return snapshot;
}

TEST(Diff, equal_snapshots_have_no_changes) {
    const v1::Snapshot snapshot = make_snapshot({make_instance(1, "1.1.1.1:1")});

    EXPECT_TRUE(diff(snapshot, snapshot).empty());
}

TEST(Diff, an_instance_of_the_new_snapshot_only_has_appeared) {
    const v1::Snapshot before = make_snapshot({make_instance(1, "1.1.1.1:1")});
    const v1::Snapshot after =
        make_snapshot({make_instance(1, "1.1.1.1:1"), make_instance(2, "2.2.2.2:2")});

    const std::vector<Change> changes = diff(before, after);

    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].kind, ChangeKind::appeared);
    EXPECT_EQ(changes[0].instance.service_id(), 2u);
    EXPECT_EQ(changes[0].reason, "published");
}

TEST(Diff, an_instance_of_the_old_snapshot_only_is_gone_and_shown_as_it_was) {
    const v1::Snapshot before = make_snapshot({make_instance(1, "1.1.1.1:1")});

    const std::vector<Change> changes = diff(before, make_snapshot({}));

    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].kind, ChangeKind::gone);
    EXPECT_EQ(endpoint_text(changes[0].instance.endpoint()), "1.1.1.1:1");
}

TEST(Diff, a_changed_endpoint_is_shown_with_the_one_before) {
    const v1::Snapshot before = make_snapshot({make_instance(1, "1.1.1.1:1", 1)});
    const v1::Snapshot after = make_snapshot({make_instance(1, "2.2.2.2:2", 2)});

    const std::vector<Change> changes = diff(before, after);

    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].kind, ChangeKind::changed);
    EXPECT_EQ(endpoint_text(changes[0].instance.endpoint()), "2.2.2.2:2");
    EXPECT_EQ(changes[0].reason, "changed, endpoint was 1.1.1.1:1");
}

TEST(Diff, changed_roles_are_shown_with_those_before) {
    v1::Instance standby = make_instance(1, "1.1.1.1:1", 1);
    standby.set_ha_role(v1::HA_ROLE_STANDBY);
    v1::Instance active = make_instance(1, "1.1.1.1:1", 2);
    active.set_ha_role(v1::HA_ROLE_ACTIVE);
    active.set_issu_role(v1::ISSU_ROLE_PRIMARY);
    active.set_issu_id(7);

    const std::vector<Change> changes = diff(make_snapshot({standby}), make_snapshot({active}));

    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].reason, "changed, ha role was STANDBY, issu was none");
}

TEST(Diff, a_raised_generation_alone_is_a_change) {
    const v1::Snapshot before = make_snapshot({make_instance(1, "1.1.1.1:1", 1)});
    const v1::Snapshot after = make_snapshot({make_instance(1, "1.1.1.1:1", 2)});

    const std::vector<Change> changes = diff(before, after);

    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].reason, "changed, published again as it was");
}

TEST(Diff, changes_that_were_skipped_are_counted) {
    const v1::Snapshot before = make_snapshot({make_instance(1, "1.1.1.1:1", 2)});
    const v1::Snapshot after = make_snapshot({make_instance(1, "2.2.2.2:2", 5)});

    const std::vector<Change> changes = diff(before, after);

    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].reason, "changed 3 times, endpoint was 1.1.1.1:1");
}

TEST(Diff, the_same_id_on_another_node_is_another_instance) {
    v1::Instance elsewhere = make_instance(1, "1.1.1.1:1");
    elsewhere.set_node("\x02\x02\x02\x02\x02\x02");

    const std::vector<Change> changes =
        diff(make_snapshot({make_instance(1, "1.1.1.1:1")}), make_snapshot({elsewhere}));

    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].kind, ChangeKind::gone);
    EXPECT_EQ(changes[1].kind, ChangeKind::appeared);
}

TEST(Diff, what_went_comes_first_then_what_changed_then_what_came) {
    const v1::Snapshot before =
        make_snapshot({make_instance(1, "1.1.1.1:1"), make_instance(2, "2.2.2.2:2")});
    const v1::Snapshot after =
        make_snapshot({make_instance(3, "3.3.3.3:3"), make_instance(1, "1.1.1.1:9", 2)});

    const std::vector<Change> changes = diff(before, after);

    ASSERT_EQ(changes.size(), 3u);
    EXPECT_EQ(changes[0].kind, ChangeKind::gone);
    EXPECT_EQ(changes[1].kind, ChangeKind::changed);
    EXPECT_EQ(changes[2].kind, ChangeKind::appeared);
}

} // namespace
} // namespace ds::cli
