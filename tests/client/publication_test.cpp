// Publications of a handle: answers, refusals, withdrawals, and what a reconnect restores.
#include "client_fixture.h"

namespace client_test {
namespace {

v1::Event withdrawn_event(std::uint32_t service_id) {
    v1::Event event;
    event.mutable_withdrawn()->set_service_id(service_id);
    event.mutable_withdrawn()->set_name("web");
    event.mutable_withdrawn()->set_instance("a");
    event.mutable_withdrawn()->set_scope(v1::SCOPE_LOCAL);
    event.mutable_withdrawn()->set_by_pid(11);
    event.mutable_withdrawn()->set_by_uid(22);
    return event;
}

class PublicationTest : public ClientTest {
  protected:
    // web/a at port 80, live with service id 5
    void publish_live() {
        connect();
        publication_ = publish("web", "a", 80);
        pump();
        peer_.accept_publish(5);
        pump();
        EXPECT_EQ(taken(), Lines{"live 5/1"});
    }
    void update(std::uint32_t port) {
        const ds_client_service_t wanted = service("web", "a", port);
        EXPECT_EQ(ds_client_publication_update(publication_, &wanted), DS_CLIENT_OK);
    }
    ds_publication_t *publication_ = nullptr;
};

TEST_F(PublicationTest, a_publication_carries_every_field_and_becomes_live) {
    connect();
    ds_client_service_t wanted = service("db", "main", 0);
    wanted.path = "/run/db";
    wanted.ha_role = DS_CLIENT_HA_STANDBY;
    wanted.issu_role = DS_CLIENT_ISSU_TERTIARY;
    wanted.issu_id = 9;
    ASSERT_EQ(ds_client_publish(handle_, &wanted, nullptr, nullptr, &publication_), DS_CLIENT_OK);
    EXPECT_EQ(describe(publication_), "pending");

    pump();
    const v1::Publish sent = peer_.accept_publish(5, 3).publish();
    pump();

    EXPECT_EQ(describe(publication_), "live 5/3");
    EXPECT_EQ(sent.name(), "db");
    EXPECT_EQ(sent.instance(), "main");
    EXPECT_EQ(sent.scope(), v1::SCOPE_LOCAL);
    EXPECT_EQ(sent.endpoint().path(), "/run/db");
    EXPECT_EQ(sent.ha_role(), v1::HA_ROLE_STANDBY);
    EXPECT_EQ(sent.issu_role(), v1::ISSU_ROLE_TERTIARY);
    EXPECT_EQ(sent.issu_id(), 9u);
}

TEST_F(PublicationTest, what_is_made_before_the_connection_leaves_with_it) {
    make();
    publish("web", "a", 80);
    watch("web");
    pump();
    peer_.accept();
    peer_.greet();
    pump();

    EXPECT_TRUE(peer_.read_request().has_publish());
    EXPECT_TRUE(peer_.read_request().has_register_());
}

TEST_F(PublicationTest, a_refusal_tells_status_and_text) {
    connect();
    publication_ = publish("web", "a", 80);
    pump();

    peer_.refuse(v1::STATUS_DENIED, "not for you");
    pump();

    EXPECT_EQ(taken(), Lines{"not live refused 3 not for you"});
    EXPECT_FALSE(is_readable());
    EXPECT_FALSE(peer_.has_request());
}

TEST_F(PublicationTest, an_update_is_published_and_a_refused_one_leaves_what_was) {
    publish_live();

    update(81);
    pump();
    EXPECT_EQ(peer_.accept_publish(5, 2).publish().endpoint().ipv4().port(), 81u);
    pump();
    EXPECT_EQ(taken(), (Lines{"pending", "live 5/2"}));

    update(82);
    pump();
    peer_.refuse(v1::STATUS_LIMIT, "too much");
    pump();
    EXPECT_EQ(taken(), (Lines{"pending", "live 5/2 refused 4 too much"}));

    lose_connection();
    reconnect();
    EXPECT_EQ(peer_.accept_publish(7).publish().endpoint().ipv4().port(), 81u);
}

TEST_F(PublicationTest, of_updates_that_wait_only_the_newest_is_sent) {
    publish_live();
    update(81);
    pump();

    update(82);
    update(83);
    peer_.accept_publish(5, 2);
    pump();

    EXPECT_EQ(peer_.accept_publish(5, 3).publish().endpoint().ipv4().port(), 83u);
    pump();
    EXPECT_FALSE(peer_.has_request());
    EXPECT_EQ(taken().back(), "live 5/3");
}

TEST_F(PublicationTest, an_update_without_connection_that_is_refused_later_brings_the_old_back) {
    publish_live();
    lose_connection();
    update(81);
    reconnect();

    EXPECT_EQ(peer_.refuse(v1::STATUS_INVALID, "no").publish().endpoint().ipv4().port(), 81u);
    pump();
    EXPECT_EQ(peer_.accept_publish(6).publish().endpoint().ipv4().port(), 80u);
    pump();

    EXPECT_EQ(taken().back(), "live 6/1");
}

TEST_F(PublicationTest, a_restored_publication_that_is_refused_is_asked_for_once) {
    publish_live();
    lose_connection();
    reconnect();

    peer_.refuse(v1::STATUS_DENIED, "no more");
    pump();

    EXPECT_EQ(taken().back(), "not live refused 3 no more");
    EXPECT_FALSE(peer_.has_request());
}

TEST_F(PublicationTest, after_a_loss_publications_come_before_registrations_in_their_order) {
    connect();
    watch("one");
    publish("a", "", 1);
    watch("two");
    publish("b", "", 2);
    pump();
    peer_.accept_register();
    peer_.accept_publish(1);
    peer_.accept_register();
    peer_.accept_publish(2);
    pump();

    lose_connection();
    reconnect();

    EXPECT_EQ(peer_.read_request().publish().name(), "a");
    EXPECT_EQ(peer_.read_request().publish().name(), "b");
    EXPECT_EQ(peer_.read_request().register_().name(), "one");
    EXPECT_EQ(peer_.read_request().register_().name(), "two");
}

TEST_F(PublicationTest, a_loss_makes_it_pending_and_a_reconnect_live_again) {
    publish_live();

    lose_connection();
    EXPECT_EQ(told_.back(), "pending");
    reconnect();
    peer_.accept_publish(9);
    pump();

    EXPECT_EQ(taken().back(), "live 9/1");
}

TEST_F(PublicationTest, a_loss_before_the_answer_publishes_again) {
    connect();
    publication_ = publish("web", "a", 80);
    pump();
    lose_connection();
    reconnect();

    peer_.accept_publish(5);
    pump();

    EXPECT_EQ(taken().back(), "live 5/1");
}

// ---- withdrawals ----

TEST_F(PublicationTest, somebody_else_s_withdrawal_is_told_and_not_undone) {
    publish_live();

    peer_.send(withdrawn_event(5));
    pump();
    EXPECT_EQ(taken(), Lines{"withdrawn by 11 of 22"});

    lose_connection();
    reconnect();
    EXPECT_FALSE(is_readable());
    EXPECT_FALSE(peer_.has_request());

    update(90);
    pump();
    EXPECT_EQ(peer_.accept_publish(6).publish().endpoint().ipv4().port(), 90u);
    pump();
    EXPECT_EQ(taken().back(), "live 6/1");
}

TEST_F(PublicationTest, news_of_the_withdrawal_of_an_earlier_id_are_ignored) {
    publish_live();

    peer_.send(withdrawn_event(4));
    pump();

    EXPECT_EQ(told_, Lines{});
    EXPECT_EQ(describe(publication_), "live 5/1");
}

TEST_F(PublicationTest, a_withdrawal_that_meets_an_update_leaves_the_update) {
    publish_live();
    update(81);
    pump();

    peer_.send(withdrawn_event(5));
    peer_.accept_publish(6);
    pump();

    EXPECT_EQ(taken(), (Lines{"pending", "live 6/1"}));
}

TEST_F(PublicationTest, a_withdrawal_that_meets_a_refused_update_is_no_life) {
    publish_live();
    update(81);
    pump();

    peer_.send(withdrawn_event(5));
    peer_.refuse(v1::STATUS_DENIED, "no");
    pump();

    EXPECT_EQ(taken(), (Lines{"pending", "not live refused 3 no"}));
}

TEST_F(PublicationTest, the_user_s_withdrawal_is_answered_and_can_be_taken_back) {
    publish_live();

    EXPECT_EQ(ds_client_publication_withdraw(publication_), DS_CLIENT_OK);
    pump();
    const v1::Withdraw sent = peer_.acknowledge().withdraw();
    pump();
    EXPECT_EQ(sent.name(), "web");
    EXPECT_EQ(sent.instance(), "a");
    EXPECT_EQ(sent.scope(), v1::SCOPE_LOCAL);
    EXPECT_EQ(sent.service_id(), 0u);
    EXPECT_EQ(taken(), (Lines{"withdrawing", "withdrawn"}));

    update(80);
    pump();
    peer_.accept_publish(6);
    pump();
    EXPECT_EQ(taken(), (Lines{"pending", "live 6/1"}));
}

TEST_F(PublicationTest, a_withdrawal_without_connection_is_done_at_once) {
    make();
    publication_ = publish("web", "a", 80);

    ds_client_publication_withdraw(publication_);
    EXPECT_EQ(told_, Lines{}); // callbacks come from dispatch only
    pump();

    EXPECT_EQ(describe(publication_), "withdrawn");
    EXPECT_EQ(taken(), (Lines{"withdrawn", "connecting"}));
}

TEST_F(PublicationTest, a_withdrawal_that_is_refused_leaves_it_live) {
    publish_live();
    ds_client_publication_withdraw(publication_);
    pump();

    peer_.refuse(v1::STATUS_INTERNAL, "no memory");
    pump();

    EXPECT_EQ(taken(), (Lines{"withdrawing", "live 5/1 refused 7 no memory"}));
}

TEST_F(PublicationTest, destroying_withdraws_and_the_successor_is_published_behind_it) {
    publish_live();
    update(81); // never sent: nobody wants it any more

    ds_client_publication_destroy(publication_);
    publication_ = publish("web", "a", 90);
    pump();

    EXPECT_TRUE(peer_.acknowledge().has_withdraw());
    EXPECT_EQ(peer_.accept_publish(6).publish().endpoint().ipv4().port(), 90u);
    pump();
    EXPECT_EQ(taken(), Lines{"live 6/1"});
}

TEST_F(PublicationTest, destroying_before_the_answer_withdraws_at_once) {
    connect();
    publication_ = publish("web", "a", 80);
    pump();

    ds_client_publication_destroy(publication_);
    publish("web", "a", 81);
    pump();
    peer_.accept_publish(5);
    EXPECT_TRUE(peer_.acknowledge().has_withdraw());
    peer_.accept_publish(6);
    pump();

    EXPECT_EQ(taken(), Lines{"live 6/1"});
}

TEST_F(PublicationTest, one_that_never_left_is_destroyed_without_a_word) {
    connect();

    ds_client_publication_destroy(publish("web", "a", 80));
    pump();

    EXPECT_FALSE(peer_.has_request());
}

TEST_F(PublicationTest, its_callback_may_destroy_it_and_make_another) {
    connect();
    publication_ = publish("web", "a", 80);
    on_told_ = [&](const std::string &line) {
        if (line != "live 5/1") return;
        ds_client_publication_destroy(publication_);
        publication_ = publish("web", "a", 81);
    };
    pump();
    peer_.accept_publish(5);
    pump();

    EXPECT_TRUE(peer_.acknowledge().has_withdraw());
    peer_.accept_publish(6);
    pump();
    EXPECT_EQ(taken(), (Lines{"live 5/1", "live 6/1"}));
}

TEST_F(PublicationTest, ten_thousand_are_restored_with_bounded_output) {
    make();
    for (int i = 0; i < 10'000; i++)
        publish("web", std::to_string(i).c_str(), 80);
    pump();
    peer_.accept();
    peer_.greet();

    for (std::uint32_t i = 0; i < 10'000; i++) {
        pump();
        EXPECT_EQ(peer_.accept_publish(i + 1).publish().instance(), std::to_string(i));
    }
    pump();

    EXPECT_EQ(std::count_if(told_.begin(), told_.end(),
                            [](const std::string &line) { return line.starts_with("live"); }),
              10'000);
}

// ---- arguments ----

TEST_F(PublicationTest, the_same_name_instance_and_scope_exist_once) {
    make();
    const ds_client_service_t wanted = service("web", "a", 80);
    publish("web", "a", 1);
    publish("web", "b", 1);

    EXPECT_EQ(ds_client_publish(handle_, &wanted, nullptr, nullptr, &publication_),
              DS_CLIENT_ERROR_EXISTS);
    EXPECT_EQ(publication_, nullptr);
}

TEST_F(PublicationTest, what_would_break_the_conversation_is_refused_here) {
    make();
    const std::string long_name(256, 'n'), long_instance(255, 'i'), long_path(4001, '/');
    const std::function<void(ds_client_service_t &)> spoils[] = {
        [](auto &it) { it.size = 1; },
        [](auto &it) { it.name = nullptr; },
        [](auto &it) { it.name = ""; },
        [](auto &it) { it.name = "\xc3"; },
        [&](auto &it) { it.name = long_name.c_str(); },
        [&](auto &it) { it.instance = long_instance.c_str(); },
        [&](auto &it) { it.path = long_path.c_str(); },
        [](auto &it) { it.scope = 0; },
        [](auto &it) { it.scope = 4; },
        [](auto &it) { it.ha_role = 3; },
        [](auto &it) { it.issu_role = 4; }};

    for (const auto &spoil : spoils) {
        ds_client_service_t wanted = service("web", "a", 80);
        spoil(wanted);
        EXPECT_EQ(ds_client_publish(handle_, &wanted, nullptr, nullptr, nullptr),
                  DS_CLIENT_ERROR_ARGUMENT);
    }
}

TEST_F(PublicationTest, an_update_must_not_change_what_it_is) {
    make();
    publication_ = publish("web", "a", 80);
    for (ds_client_service_t wanted : {service("web", "b", 80), service("wex", "a", 80)})
        EXPECT_EQ(ds_client_publication_update(publication_, &wanted), DS_CLIENT_ERROR_ARGUMENT);
}

} // namespace
} // namespace client_test
