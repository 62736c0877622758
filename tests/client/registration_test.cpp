// Registrations of a handle: snapshots with every field, and what is told after a reconnect.
#include "client_fixture.h"

namespace client_test {
namespace {

std::string last_of(const Lines &lines) {
    return lines.empty() ? "nothing" : lines.back();
}

class RegistrationTest : public ClientTest {
  protected:
    // Loses the connection and registers again, up to the peer's answer.
    void restore() {
        lose_connection();
        reconnect();
        taken();
        registration_ = peer_.accept_register();
        pump();
        EXPECT_EQ(taken(), Lines{});
    }
    void send(const std::string &instances, bool reconciling = false) {
        peer_.send(notify(registration_, snapshot_of("web", instances, 1, 400), reconciling));
        pump();
    }
};

TEST_F(RegistrationTest, a_snapshot_carries_every_field) {
    connect();
    ds_client_snapshot_t seen{};
    ds_client_instance_t instance{};
    struct Seen {
        ds_client_snapshot_t &snapshot;
        ds_client_instance_t &instance;
    } both{seen, instance};
    const auto keep = [](void *ctx, ds_registration_t *, const ds_client_snapshot_t *snapshot) {
        static_cast<Seen *>(ctx)->snapshot = *snapshot;
        static_cast<Seen *>(ctx)->instance = *snapshot->instances[0];
    };
    ASSERT_EQ(ds_client_watch(handle_, "web", keep, nullptr, &both, nullptr), DS_CLIENT_OK);
    pump();
    v1::Snapshot snapshot = snapshot_of("web", "a:80", 12, 34);
    snapshot.set_resynced(true);
    v1::Instance &sent = *snapshot.mutable_instances(0);
    sent.set_ha_role(v1::HA_ROLE_ACTIVE);
    sent.set_issu_role(v1::ISSU_ROLE_SECONDARY);
    sent.set_issu_id(56);
    sent.set_generation(78);
    sent.set_scope(v1::SCOPE_RACK);

    peer_.send(notify(peer_.accept_register(), snapshot));
    pump();

    EXPECT_EQ(seen.size, sizeof seen);
    EXPECT_EQ(seen.version, 12u);
    EXPECT_EQ(seen.instance_count, 1u);
    EXPECT_EQ(seen.is_reconciling, 0);
    EXPECT_EQ(seen.is_resynced, 1);
    EXPECT_EQ(instance.size, sizeof instance);
    EXPECT_EQ(instance.service_id, 34u);
    EXPECT_EQ(instance.generation, 78u);
    EXPECT_EQ(instance.scope, static_cast<std::uint32_t>(DS_CLIENT_SCOPE_RACK));
    EXPECT_EQ(instance.pid, 100u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(instance.node), 6),
              std::string("\x02\x00\x00\x00\x00\x01", 6));
    EXPECT_EQ(instance.is_local, 1);
    EXPECT_EQ(instance.ipv4_address, 0x0a000001u);
    EXPECT_EQ(instance.ipv4_port, 80u);
    EXPECT_EQ(instance.path, nullptr);
    EXPECT_EQ(instance.ha_role, static_cast<std::uint32_t>(DS_CLIENT_HA_ACTIVE));
    EXPECT_EQ(instance.issu_role, static_cast<std::uint32_t>(DS_CLIENT_ISSU_SECONDARY));
    EXPECT_EQ(instance.issu_id, 56u);
}

TEST_F(RegistrationTest, every_snapshot_of_a_connection_is_told) {
    connect();
    watch_told("web", "a:1");

    send("a:1");
    send("");

    EXPECT_EQ(taken(), (Lines{"web: a:1", "web: a:1", "web: "}));
}

TEST_F(RegistrationTest, a_refusal_is_known_and_tried_again_after_a_reconnect) {
    connect();
    ds_registration_t *registration = watch("web");
    pump();
    peer_.refuse(v1::STATUS_DENIED, "no");
    pump();
    ds_registration_info_t info{};
    info.size = sizeof info;
    ASSERT_EQ(ds_client_registration_get_info(registration, &info), DS_CLIENT_OK);
    EXPECT_EQ(info.state, DS_REGISTRATION_REFUSED);
    EXPECT_EQ(info.status, 3u);
    EXPECT_STREQ(info.text, "no");
    EXPECT_EQ(info.snapshot, nullptr);

    restore();
    ASSERT_EQ(ds_client_registration_get_info(registration, &info), DS_CLIENT_OK);
    EXPECT_EQ(info.state, DS_REGISTRATION_LIVE);
}

TEST_F(RegistrationTest, an_unchanged_snapshot_is_not_told_again_after_a_reconnect) {
    connect();
    watch_told("web", "a:1 b:2");
    taken();
    restore();

    send("b:2 a:1");
    EXPECT_EQ(taken(), Lines{});

    send("a:1");
    EXPECT_EQ(taken(), Lines{"web: a:1"});
}

TEST_F(RegistrationTest, a_restarted_daemon_does_not_make_live_services_vanish) {
    connect();
    ds_registration_t *registration = watch_told("web", "a:1 b:2");
    taken();
    restore();

    send("", true);
    send("b:2", true);
    EXPECT_EQ(taken(), Lines{});
    send("b:2 c:3", true);
    EXPECT_EQ(taken(), Lines{"web: a:1 b:2 c:3 (reconciling)"});
    send("b:2 c:3");
    EXPECT_EQ(taken(), Lines{"web: b:2 c:3"});

    ds_registration_info_t info{};
    info.size = sizeof info;
    ASSERT_EQ(ds_client_registration_get_info(registration, &info), DS_CLIENT_OK);
    EXPECT_EQ(digest(*info.snapshot), "b:2 c:3");
    EXPECT_EQ(info.snapshot->instances[0]->service_id, 400u);
}

TEST_F(RegistrationTest, without_a_connection_the_last_snapshot_stays_known) {
    connect();
    ds_registration_t *registration = watch_told("web", "a:1");

    lose_connection();

    ds_registration_info_t info{};
    info.size = sizeof info;
    ASSERT_EQ(ds_client_registration_get_info(registration, &info), DS_CLIENT_OK);
    EXPECT_EQ(info.state, DS_REGISTRATION_PENDING);
    EXPECT_EQ(digest(*info.snapshot), "a:1");
}

TEST_F(RegistrationTest, two_registrations_of_a_name_are_told_each) {
    connect();
    watch_told("web", "a:1");
    const v1::Request first = registration_;
    watch_told("web", "a:1");
    EXPECT_NE(first.register_().cookie(), registration_.register_().cookie());
    taken();

    peer_.send(notify(first, snapshot_of("web", "")));
    pump();

    EXPECT_EQ(taken(), Lines{"web: "});
}

TEST_F(RegistrationTest, destroying_unregisters_and_nothing_more_is_told) {
    connect();
    ds_registration_t *registration = watch_told("web", "a:1");
    taken();

    ds_client_registration_destroy(registration);
    send("a:2");
    const v1::Unregister sent = peer_.acknowledge().unregister();
    pump();

    EXPECT_EQ(sent.name(), "web");
    EXPECT_EQ(sent.handle(), 1u);
    EXPECT_EQ(taken(), Lines{});
}

TEST_F(RegistrationTest, destroying_before_the_answer_unregisters_behind_it) {
    connect();
    ds_registration_t *registration = watch("web");
    pump();

    ds_client_registration_destroy(registration);
    pump();
    peer_.accept_register(17);
    pump();

    EXPECT_EQ(peer_.acknowledge().unregister().handle(), 17u);
}

TEST_F(RegistrationTest, its_callback_may_destroy_it) {
    connect();
    ds_registration_t *registration = watch("web");
    on_told_ = [&](const std::string &) { ds_client_registration_destroy(registration); };
    pump();
    registration_ = peer_.accept_register();

    peer_.send(notify(registration_, snapshot_of("web", "a:1")));
    send("a:2");

    EXPECT_EQ(last_of(taken()), "web: a:1");
    EXPECT_TRUE(peer_.read_request().has_unregister());
}

TEST_F(RegistrationTest, a_state_callback_may_destroy_it_before_its_snapshot_is_told) {
    connect();
    Lines told;
    const auto on_state = [](void *ctx, ds_registration_t *it, const ds_registration_info_t *) {
        static_cast<Lines *>(ctx)->push_back("state");
        ds_client_registration_destroy(it);
    };
    const auto on_snapshot = [](void *ctx, ds_registration_t *, const ds_client_snapshot_t *) {
        static_cast<Lines *>(ctx)->push_back("snapshot");
    };
    ASSERT_EQ(ds_client_watch(handle_, "web", on_snapshot, on_state, &told, nullptr), DS_CLIENT_OK);
    pump();

    peer_.send(notify(peer_.accept_register(), snapshot_of("web", "a:1")));
    pump();

    EXPECT_EQ(told, Lines{"state"});
}

TEST_F(RegistrationTest, names_out_of_range_are_refused) {
    make();
    const std::string long_name(256, 'n');
    for (const char *name : {static_cast<const char *>(nullptr), "", "\xff", long_name.c_str()})
        EXPECT_EQ(ds_client_watch(handle_, name, nullptr, nullptr, nullptr, nullptr),
                  DS_CLIENT_ERROR_ARGUMENT);
}

} // namespace
} // namespace client_test
