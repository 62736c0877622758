// Dumps of a database that the life of a cluster has built: what is counted, and what is filled.
#include "cluster_fixture.h"

namespace {

// Node one was restarted and its period is open. It shows
//   db     3@1, LOCAL
//   web    1@1, SYSTEM, taken over by its client, and 2@2, RACK; two watchers
//   webs   8@1, replayed, claimed by nobody
//   idle   nothing, one watcher
class ClusterDumpTest : public ClusterTest {
  protected:
    void SetUp() override {
        ClusterTest::SetUp();
        VIDL_CLEAR(&resp);
        Client publisher = new_client_on(*one, 100, "pub");
        publish_by(publisher, instance_of("web", "a;", 1));
        publish_by(publisher, instance_of("webs", "a;", 8));
        publish_by(new_client_on(*two, 200, "far"), instance_of("web", "b;", 2, DS_SCOPE_RACK));
        restart(*one);
        connect(*one);
        replay_own(*one);
        publisher = new_client_on(*one, 100, "pub");
        publish_by(publisher, instance_of("web", "a;", 1));
        publish_by(publisher, instance_of("db", "a;", 3, DS_SCOPE_LOCAL));
        watcher = new_watcher_on(*one, "web");
        watch_by(watcher, "idle");
        watch_by(publisher, "web");
        EXPECT_EQ(news(watcher), "have 1 2");
    }

    void TearDown() override {
        free_response();
        // Asking changes nothing: the period ends as if nobody had asked.
        own_period_ends(*one);
        EXPECT_EQ(visible_everywhere("web"), "1@1 2@2");
        EXPECT_EQ(visible_everywhere("webs"), "");
        EXPECT_EQ(relay_holds(), "web,1@1,v2 web,2@2,v1");
        EXPECT_EQ(relay.bounces(), std::vector<uint32_t>{});
        ClusterTest::TearDown();
    }

    // "counted N: name[services](registrations) ..." or "counted N: client[services](...)".
    std::string dump(uint32_t flags, const char *name = nullptr, uint32_t scope = DS_SCOPE_ANY,
                     uint8_t octet = 0) {
        free_response();
        resp.request_flags = flags;
        enter(*one);
        const auto address = address_of(octet);
        EXPECT_EQ(ds_prepare_dump_resp_info(name, octet == 0 ? nullptr : address.data(), scope,
                                            &resp, &elements, &clients),
                  0);
        EXPECT_TRUE(elements == 0 || clients == 0) << "one kind of records only";
        EXPECT_LE(resp.selem_infos_count, elements);
        EXPECT_LE(resp.client_infos_count, clients);
        std::string text = "counted " + std::to_string(elements + clients) + ":";
        for (uint32_t index = 0; index < resp.selem_infos_count; ++index)
            text +=
                " " + std::string(resp.selem_infos[index].name) + lists_of(resp.selem_infos[index]);
        for (uint32_t index = 0; index < resp.client_infos_count; ++index)
            text +=
                " " +
                std::string(reinterpret_cast<const char *>(resp.client_infos[index].client_name)) +
                lists_of(resp.client_infos[index]);
        return text;
    }

    template <typename Record> static std::string lists_of(const Record &record) {
        std::string text = "[";
        for (uint32_t index = 0; index < record.service_infos_count; ++index) {
            const ds_dump_service_info &service = record.service_infos[index];
            text += (index == 0 ? "" : " ") + std::to_string(service.ep_addr[4]) + "@" +
                    std::to_string(service.node_addr[5]);
        }
        text += "](";
        for (uint32_t index = 0; index < record.reg_entries_count; ++index) {
            const vidl_ds_client_reg_entry &reg = record.reg_entries[index];
            text += (index == 0 ? "" : " ") + std::string(reg.client_name) + ":" +
                    reinterpret_cast<const char *>(reg.service_name);
        }
        return text + ")";
    }

    void free_response() {
        for (uint32_t index = 0; index < resp.selem_infos_count; ++index) {
            recording::host_free(resp.selem_infos[index].service_infos);
            recording::host_free(resp.selem_infos[index].reg_entries);
        }
        for (uint32_t index = 0; index < resp.client_infos_count; ++index) {
            recording::host_free(resp.client_infos[index].service_infos);
            recording::host_free(resp.client_infos[index].reg_entries);
        }
        recording::host_free(resp.selem_infos);
        recording::host_free(resp.client_infos);
        VIDL_CLEAR(&resp);
    }

    Client watcher{};
    ds_dump_resp_info resp;
    uint32_t elements = 99;
    uint32_t clients = 99;
};

constexpr uint32_t services = DS_DUMP_REQ_SERVICES;
constexpr uint32_t registrations = DS_DUMP_REQ_REGISTRATIONS;
constexpr uint32_t all_clients = DS_DUMP_REQ_CLIENTS;

} // namespace

TEST_F(ClusterDumpTest, a_services_dump_shows_what_lives_with_everyone_who_watches_it) {
    EXPECT_EQ(dump(services), "counted 2: db[3@1]() web[1@1 2@2](pub:web watch:web)");
}

TEST_F(ClusterDumpTest, a_scope_narrows_the_services_and_not_the_watchers) {
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_LOCAL), "counted 1: db[3@1]()");
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_SYSTEM), "counted 1: web[1@1](pub:web watch:web)");
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_RACK), "counted 1: web[2@2](pub:web watch:web)");
}

TEST_F(ClusterDumpTest, an_address_narrows_the_services_to_its_node) {
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_ANY, 1),
              "counted 2: db[3@1]() web[1@1](pub:web watch:web)");
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_ANY, 2), "counted 1: web[2@2](pub:web watch:web)");
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_SYSTEM, 2), "counted 0:");
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_ANY, 77), "counted 0:");
}

TEST_F(ClusterDumpTest, a_name_narrows_the_services_to_one_element) {
    EXPECT_EQ(dump(services, "web"), "counted 1: web[1@1 2@2](pub:web watch:web)");
    EXPECT_EQ(dump(services, "web", DS_SCOPE_RACK, 2), "counted 1: web[2@2](pub:web watch:web)");
    EXPECT_EQ(dump(services, "web", DS_SCOPE_LOCAL), "counted 0:");
    EXPECT_EQ(dump(services, "idle"), "counted 0:") << "watched, but without a service";
    EXPECT_EQ(dump(services, "none"), "counted 0:");
}

TEST_F(ClusterDumpTest, a_name_that_begins_with_anothers_is_counted_by_it_and_filled_by_itself) {
    EXPECT_EQ(dump(services, "webs"), "counted 1:") << "web is live, webs only replayed";
    EXPECT_NE(resp.selem_infos, nullptr) << "the array is there to be freed";
    EXPECT_EQ(dump(services, "dbase"), "counted 1:") << "no such name";
    EXPECT_EQ(dump(registrations, "website"), "counted 1:");
}

TEST_F(ClusterDumpTest, a_name_without_services_hides_the_longer_ones) {
    publish_by(new_client_on(*one, 300, "late"), instance_of("idler", "a;", 6, DS_SCOPE_LOCAL));

    EXPECT_EQ(dump(services, "idler"), "counted 0:") << "idle has none, and decides";
    EXPECT_EQ(dump(services), "counted 3: db[3@1]() web[1@1 2@2](pub:web watch:web) idler[6@1]()");
}

TEST_F(ClusterDumpTest, a_registrations_dump_shows_every_watched_name_and_no_services) {
    EXPECT_EQ(dump(registrations), "counted 2: web[](pub:web watch:web) idle[](watch:idle)");
    EXPECT_EQ(dump(registrations, "idle"), "counted 1: idle[](watch:idle)");
    EXPECT_EQ(dump(registrations, "db"), "counted 0:");
    EXPECT_EQ(dump(registrations, nullptr, DS_SCOPE_RACK, 77),
              "counted 2: web[](pub:web watch:web) idle[](watch:idle)")
        << "neither scope nor node narrows it";
}

TEST_F(ClusterDumpTest, a_clients_dump_shows_each_with_its_services_and_registrations) {
    new_client_on(*one, 400, "mute");

    EXPECT_EQ(dump(all_clients), "counted 3: mute[]() watch[](watch:idle watch:web) "
                                 "pub[3@1 1@1](pub:web)");
    EXPECT_EQ(dump(all_clients, "pub"), "counted 1: pub[3@1 1@1](pub:web)");
    EXPECT_EQ(dump(all_clients, "publisher"), "counted 0:") << "a whole name, not a beginning";
    EXPECT_EQ(dump(all_clients, "watch", DS_SCOPE_LOCAL, 2),
              "counted 1: watch[](watch:idle watch:web)");
}

TEST_F(ClusterDumpTest, services_win_over_registrations_and_these_over_clients) {
    EXPECT_EQ(dump(services | registrations | all_clients), dump(services));
    EXPECT_EQ(dump(registrations | all_clients), dump(registrations));
    EXPECT_EQ(dump(0), "counted 0:");
}

TEST_F(ClusterDumpTest, a_dump_follows_the_relay_out_and_back) {
    relay_goes_away();
    EXPECT_EQ(dump(services, "web"), "counted 1: web[1@1 2@2](pub:web watch:web)") << "still there";
    EXPECT_EQ(report_down(*one, 2), 0);
    EXPECT_EQ(dump(services, "web"), "counted 1: web[1@1](pub:web watch:web)");
    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_ANY, 2), "counted 0:");

    relay_comes_back();
    EXPECT_EQ(dump(services, "web"), "counted 1: web[1@1](pub:web watch:web)") << "not yet";
    relay_periods_end();

    EXPECT_EQ(dump(services, "web"), "counted 1: web[2@2 1@1](pub:web watch:web)");
}
