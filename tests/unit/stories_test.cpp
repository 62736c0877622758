// Whole roads through the library, told as a host lives them.
#include "lifecycle_fixture.h"

namespace {

class StoriesTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        watcher = new_watcher();
        recording::clear_calls();
    }

    // An update of the relay as the host gets it.
    int receive(uint32_t operation, uint8_t sender, const char *instance, uint32_t id, uint32_t pid,
                uint32_t version, uint8_t last = 1) {
        const uint8_t address[6] = {2, 0, 0, 0, 0, sender};
        const std::vector<uint8_t> endpoint = recording::encode_ip({10, 0, 0, last}, 1000);
        return dsr_receive_cb(operation, address, "web", id, instance, 2, pid, version,
                              endpoint.data(), endpoint.size(), nullptr, 0);
    }

    // The endpoints of each message in order, "deleted" for slot 45; forgets what was told.
    std::string what_was_told() {
        std::string result;
        for (size_t index = 0; index < sent.size(); ++index) {
            const SentMessage &message = sent[index];
            if (message.slot == DS_GLOBAL_SLOT_NOTIFY_HOOK) continue;
            result += result.empty() ? "" : "; ";
            result += message.slot == DS_GLOBAL_SLOT_CLIENT_DELETE ? "deleted" : "have";
            for (const SentMessage::Entry &entry : message.entries)
                result += " " + std::to_string(entry.ep_addr[4]);
        }
        sent.clear();
        return result;
    }

    // The operations and versions of the updates sent; forgets them.
    std::string what_was_sent() {
        static const char *const names[] = {"noop", "add", "modify", "delete"};
        std::string result;
        for (const recording::SentUpdate &update : recording::sent_updates())
            result += std::string(result.empty() ? "" : "; ") + names[update.operation] + " " +
                      std::to_string(update.version);
        recording::clear_calls();
        return result;
    }

    ds_client_t *publisher = nullptr;
    ds_client_t *watcher = nullptr;
};

constexpr uint8_t self = 0xff;

} // namespace

TEST_F(StoriesTest, a_watcher_follows_a_service_from_its_birth_to_its_publishers_departure) {
    dsr_connect_cb();
    ds_client_reg_t *reg = watch(watcher, "web", 0xc0ffee);
    ds_notify_client(reg, element("web"));
    EXPECT_EQ(what_was_told(), "") << "nothing is there yet";

    publish(publisher, one_endpoint("web", 2, 1).instance("a;"));
    EXPECT_EQ(what_was_told(), "have 1");
    EXPECT_EQ(what_was_sent(), "add 1");

    publish(publisher, one_endpoint("web", 2, 2).instance("a;"));
    EXPECT_EQ(what_was_told(), "have 2");
    EXPECT_EQ(what_was_sent(), "modify 2");

    publish(publisher, one_endpoint("web", 3, 3).instance("b;"));
    EXPECT_EQ(what_was_told(), "have 3 2");
    EXPECT_EQ(what_was_sent(), "");

    withdraw(publisher, "web", 3, "b;");
    EXPECT_EQ(what_was_told(), "have 2");

    ds_db_delete_client(publisher);
    EXPECT_EQ(what_was_told(), "deleted; have");
    EXPECT_EQ(what_was_sent(), "delete 2");
    EXPECT_EQ(reg->nnotifs, 5u);
    EXPECT_EQ(reg->creg_ver, element("web")->selem_version);

    ds_db_delete_client(watcher);
    EXPECT_EQ(ds_db_get_client_count(nullptr), 0u);
    EXPECT_TRUE(services_of(element("web")).empty());
}

TEST_F(StoriesTest, a_late_watcher_is_told_once_and_then_with_everybody) {
    publish(publisher, one_endpoint("web", 3, 1));
    ds_client_reg_t *reg = watch(watcher, "web");
    ds_notify_client(reg, element("web"));
    EXPECT_EQ(what_was_told(), "have 1");

    ds_notify(element("web"));
    EXPECT_EQ(what_was_told(), "") << "it has seen this version";

    publish(publisher, one_endpoint("web", 3, 2));
    EXPECT_EQ(what_was_told(), "have 2");
}

TEST_F(StoriesTest, a_service_replayed_and_published_again_after_a_restart_is_never_deleted) {
    mgd_timer_t *own = set_own_timer();
    dsr_connect_cb();
    watch(watcher, "web");

    // The relay gives this node back what it had published before the restart.
    EXPECT_EQ(receive(DSR_ADD, self, "a;", 0x77, publisher_pid, 5), 0);
    EXPECT_EQ(newest("web")->proc_id, 1u);
    EXPECT_EQ(what_was_told(), "");

    // Its client is back, too, and publishes it again, and again.
    publish(publisher, one_endpoint("web", 2, 1).instance("a;"));
    EXPECT_EQ(what_was_told(), "have 1");
    publish(publisher, one_endpoint("web", 2, 2).instance("a;"));
    EXPECT_EQ(what_was_told(), "have 2");
    EXPECT_EQ(what_was_sent(), "") << "nothing leaves the node in the period";
    ASSERT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(newest("web")->proc_id, publisher->client_idx);
    EXPECT_EQ(newest("web")->service_id, 0x77u);

    recording::set_running(own, false);
    ds_db_finalize_restart();
    EXPECT_EQ(what_was_told(), "have 2");
    EXPECT_EQ(what_was_sent(), "modify 7") << "the relay knows it by its old identity";
    EXPECT_EQ(newest("web")->proc_id, publisher->client_idx);
    EXPECT_EQ(newest("web")->flags, 0u);

    // Afterwards it is a service like any other.
    publish(publisher, one_endpoint("web", 2, 3).instance("a;"));
    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(what_was_told(), "have 3");
    EXPECT_EQ(what_was_sent(), "modify 8");
    EXPECT_EQ(withdraw(publisher, "web", 2, "a;"), 0);
    EXPECT_EQ(what_was_told(), "deleted; have");
    EXPECT_EQ(what_was_sent(), "delete 8");
}

TEST_F(StoriesTest, a_client_that_is_back_before_the_replay_keeps_its_record) {
    mgd_timer_t *own = set_own_timer();
    dsr_connect_cb();
    watch(watcher, "web");

    publish(publisher, one_endpoint("web", 2, 1).instance("a;"));
    EXPECT_EQ(what_was_told(), "have 1");
    EXPECT_EQ(receive(DSR_ADD, self, "a;", 0x77, publisher_pid, 5), 0);
    EXPECT_EQ(what_was_told(), "");
    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(newest("web")->flags, 3u);

    recording::set_running(own, false);
    recording::clear_calls();
    ds_db_finalize_restart();
    EXPECT_EQ(what_was_told(), "have 1");
    EXPECT_EQ(what_was_sent(), "modify 5");
}

TEST_F(StoriesTest, a_client_that_does_not_come_back_loses_its_replayed_service) {
    mgd_timer_t *own = set_own_timer();
    dsr_connect_cb();
    watch(watcher, "web");
    receive(DSR_ADD, self, "a;", 0x77, 999, 5);

    recording::set_running(own, false);
    ds_db_finalize_restart();

    EXPECT_EQ(what_was_sent(), "delete 5");
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(what_was_told(), "deleted; have");
}

TEST_F(StoriesTest, a_taken_over_service_goes_with_its_client_within_the_period) {
    set_own_timer();
    dsr_connect_cb();
    watch(watcher, "web");
    receive(DSR_ADD, self, "a;", 0x77, publisher_pid, 5);
    publish(publisher, one_endpoint("web", 2, 1).instance("a;"));
    what_was_told();
    recording::clear_calls();

    ds_db_delete_client(publisher);

    EXPECT_EQ(what_was_told(), "deleted; have");
    EXPECT_EQ(what_was_sent(), "delete 6");
    EXPECT_EQ(newest("web"), nullptr);
}

TEST_F(StoriesTest, a_relay_outage_shorter_than_its_period_passes_unnoticed) {
    dsr_connect_cb();
    watch(watcher, "web");
    receive(DSR_ADD, 1, "a;", 0x5, 42, 1, 1);
    receive(DSR_ADD, 2, "b;", 0x6, 43, 1, 2);
    publish(publisher, one_endpoint("web", 2, 3).instance("c;"));
    EXPECT_EQ(what_was_told(), "have 1; have 2 1; have 3 2 1");
    recording::clear_calls();

    dsr_disconn_cb();
    dsr_connect_cb();
    EXPECT_EQ(what_was_sent(), "add 1") << "the local service is sent afresh";
    receive(DSR_ADD, 1, "a;", 0x5, 42, 1, 1);
    receive(DSR_ADD, 2, "b;", 0x6, 43, 1, 2);
    ds_db_finalize_restart();

    EXPECT_EQ(what_was_told(), "");
    EXPECT_EQ(services_of(element("web")).size(), 3u);
}

TEST_F(StoriesTest, after_a_relay_outage_lost_services_go_and_new_ones_appear) {
    dsr_connect_cb();
    watch(watcher, "web");
    receive(DSR_ADD, 1, "a;", 0x5, 42, 1, 1);
    receive(DSR_ADD, 1, "b;", 0x6, 43, 1, 2);
    what_was_told();

    dsr_disconn_cb();
    dsr_connect_cb();
    receive(DSR_ADD, 1, "b;", 0x6, 43, 1, 2);
    receive(DSR_ADD, 1, "c;", 0x7, 44, 9, 3);
    EXPECT_EQ(what_was_told(), "");
    ds_db_finalize_restart();

    EXPECT_EQ(what_was_told(), "have 3 2") << "one message for all that changed";
    EXPECT_EQ(newest("web")->proc_id, 44u);
    EXPECT_EQ(newest("web")->gen, 9u);
}

TEST_F(StoriesTest, a_node_that_dies_takes_only_its_own_services) {
    const uint8_t dead[6] = {2, 0, 0, 0, 0, 1};
    dsr_connect_cb();
    watch(watcher, "web");
    receive(DSR_ADD, 1, "a;", 0x5, 42, 1, 1);
    publish(publisher, one_endpoint("web", 2, 2).instance("b;"));
    what_was_told();

    EXPECT_EQ(dsr_peer_down_cb(dead), 0);
    EXPECT_EQ(what_was_told(), "have 2");

    // It comes back and publishes as before.
    receive(DSR_ADD, 1, "a;", 0x5, 42, 2, 1);
    EXPECT_EQ(what_was_told(), "have 1 2");
}

TEST_F(StoriesTest, an_entry_that_this_node_no_longer_owns_is_deleted_at_the_relay) {
    dsr_connect_cb();
    watch(watcher, "web");
    recording::clear_calls();

    EXPECT_EQ(receive(DSR_ADD, self, "old;", 0x9, 999, 4), 0);

    EXPECT_EQ(what_was_sent(), "delete 5");
    EXPECT_EQ(what_was_told(), "");
    EXPECT_TRUE(services_of(element("web")).empty());
}

TEST_F(StoriesTest, many_clients_come_and_go_and_leave_nothing_behind) {
    watch(watcher, "web");
    for (uint64_t round = 1; round <= 50; ++round) {
        ds_client_t *client = new_client(0x1000 + round, 1000 + static_cast<long>(round));
        publish(client, one_endpoint("web", 2, 1).instance("a;"));
        publish(client, one_endpoint("own" + std::to_string(round), 3));
        if (round % 2 == 0) withdraw(client, "web", 2, "a;");
        ds_db_delete_client(client);
    }

    EXPECT_EQ(db()->selem_tree.count, 1u);
    EXPECT_EQ(db()->clients_added, 52u);
    EXPECT_EQ(db()->clients_deleted, 50u);
    EXPECT_EQ(db()->local_services_added, 100u);
    EXPECT_EQ(db()->local_services_deleted, 100u);
    EXPECT_EQ(watcher->nnotifs, 100u);
}
