// Every log point: the library's table against the expected one, and each point that can be
// reached made to fire with both sinks open.
//
// The fixture compares what each fired point passed to its channel with expected_log_points; here
// the console is compared with the trace records as well. Each test runs once more with channels
// that did not open: then the console alone has every line.
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>

#include "ds_trace.h"
#include "expected_log_points.h"
#include "library_test.h"

namespace {

// Points that no sequence of calls reaches, and why. unreachable_points_test.cpp comes as close to
// each as a host can.
const std::map<uint32_t, const char *> unreachable = {
    {13, "adding a record fails without an element or a database; both were there a moment before, "
         "when the record was made, and no host code runs in between"},
    {72, "its guard asks for a message that is null; the message is an object of the function"},
};

const char *const channel_names[] = {"pub", "reg", "err", "notif", "main", "argument"};

enum class Channels { open, failed };

class LogPointsTest : public LibraryTest, public testing::WithParamInterface<Channels> {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        if (GetParam() == Channels::failed)
            std::fill(std::begin(ds_lib_rtrace), std::end(ds_lib_rtrace), nullptr);
        open_console();
        client = new_client(0x10, 100);
        web = new_element("web");
        remote_node = new_node(2);
        clear_log();
    }

    void TearDown() override {
        expect_console_like_traces();
        LibraryTest::TearDown();
    }

    void clear_log() {
        recording::clear_calls();
        clear_console();
    }

    // By the tags on the console.
    std::set<uint32_t> fired() {
        const std::string text = console();
        std::set<uint32_t> ids;
        for (const ExpectedLogPoint &point : expected_log_points)
            if (text.find(":[" + std::string(point.tag) + "/") != std::string::npos)
                ids.insert(point.id);
        return ids;
    }

    // Each trace record has its line on the console, in the same order: tag, thread, text.
    void expect_console_like_traces() {
        if (GetParam() == Channels::failed) {
            EXPECT_TRUE(recording::traces().empty());
            return;
        }
        const std::string text = console();
        const std::string thread = std::to_string(static_cast<unsigned long>(pthread_self()));
        size_t position = 0;
        for (const recording::Trace &trace : recording::traces()) {
            const std::string body = ":[" + std::string(expected_log_points[trace.id].tag) + "/" +
                                     thread + "] " + trace.text + "\n";
            const size_t found = text.find(body, position);
            EXPECT_NE(found, std::string::npos) << body << "is not in\n" << text;
            if (found != std::string::npos) position = found + body.size();
        }
        EXPECT_EQ(position, text.size()) << "the console says more than the channels";
    }

    static PublishInfoBuilder info(uint32_t scope = 2) {
        return PublishInfoBuilder("web").endpoints(1).scope(scope);
    }

    mgd_timer_t *run_timer(uint32_t slot) {
        mgd_timer_t *timer = recording::new_timer("restart", true);
        globals.slot[slot] = reinterpret_cast<uint64_t>(timer);
        return timer;
    }

    void connect_relay() {
        *reinterpret_cast<uint8_t *>(&globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) = 1;
    }

    int publish(uint32_t client_idx, ds_node_t *node, const PublishInfoBuilder &what,
                const ds_dsr_service_ref_t *ref = nullptr) {
        return ds_db_publish_service(client_idx, node, new_info(what), ref);
    }

    int unpublish(const char *name, uint32_t client_idx, ds_node_t *node,
                  const ds_dsr_service_ref_t *ref = nullptr) {
        ds_service_key_t key;
        VIDL_CLEAR(&key);
        VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, const_cast<char *>(name));
        return ds_db_unpublish_service(client_idx, node, &key, ref);
    }

    // An update of the relay about a service of another node.
    int receive(uint32_t operation, const char *name = "web") {
        const uint8_t sender[6] = {2, 0, 0, 0, 0, 2};
        const auto endpoint = recording::encode_ip({10, 0, 0, 9}, 99);
        return dsr_receive_cb(operation, sender, name, 77, nullptr, 2, 500, 3, endpoint.data(),
                              endpoint.size(), nullptr, 0);
    }

    ds_client_t *client = nullptr;
    ds_service_elem_t *web = nullptr;
    ds_node_t *remote_node = nullptr;
};

using Ids = std::set<uint32_t>;

// When the whole program ran, exactly the points that can be reached have to have fired in it.
class AllPointsFired : public ::testing::Environment {
  public:
    void TearDown() override {
        if (::testing::GTEST_FLAG(filter) != "*") return;
        Ids silent;
        for (uint32_t id = 0; id < recording::trace_point_count; ++id)
            if (recording::fired(id) == 0) silent.insert(id);
        Ids expected;
        for (const auto &[id, reason] : unreachable) {
            expected.insert(id);
            printf("log point %u, %s, cannot be reached: %s\n", id, expected_log_points[id].tag,
                   reason);
        }
        EXPECT_EQ(silent, expected) << "the log points that did not fire";
    }
};
const ::testing::Environment *const all_points_fired =
    ::testing::AddGlobalTestEnvironment(new AllPointsFired);

INSTANTIATE_TEST_SUITE_P(sinks, LogPointsTest, testing::Values(Channels::open, Channels::failed),
                         [](const auto &test) {
                             return test.param == Channels::open ? "channels_and_console"
                                                                 : "console_alone";
                         });

} // namespace

// ---- the table ----

TEST(LogPointTable, every_row_is_the_expected_one) {
    ASSERT_EQ(std::size(ds_log::points), recording::trace_point_count);
    for (uint32_t id = 0; id < recording::trace_point_count; ++id) {
        const ds_log::point &point = ds_log::points[id];
        const ExpectedLogPoint &expected = expected_log_points[id];

        EXPECT_EQ(point.number, id);
        EXPECT_EQ(expected.id, id);
        EXPECT_STREQ(point.tag, expected.tag);
        EXPECT_STREQ(point.format, expected.format);
        EXPECT_STREQ(channel_names[static_cast<uint32_t>(point.channel)], expected.channel)
            << expected.tag;
    }
}

TEST(LogPointTable, tags_are_unique) {
    std::set<std::string> tags;
    for (const ExpectedLogPoint &point : expected_log_points)
        EXPECT_TRUE(tags.insert(point.tag).second) << point.tag;
}

TEST(LogPointTable, record_sizes_follow_from_the_signatures) {
    for (const ExpectedLogPoint &point : expected_log_points) {
        const std::string signature = point.signature;
        const auto words = std::count(signature.begin(), signature.end(), 'd');
        const auto wides = std::count(signature.begin(), signature.end(), 'D');
        const auto sum = 4 + words + 2 * wides;

        EXPECT_EQ(point.size, sum >= 10 ? sum + 1 : sum) << point.tag;
    }
}

// ---- the database ----

TEST_P(LogPointsTest, a_database_that_does_not_start) {
    forget_database();
    recording::fail("pthread_mutexattr_init", 1, ENOMEM);
    ds_db_init();
    forget_database();
    recording::fail("pthread_mutex_init", 1, ENOMEM);
    ds_db_init();

    EXPECT_EQ(fired(), (Ids{0, 1}));
}

TEST_P(LogPointsTest, records_that_cannot_be_made) {
    ds_service_elem_t *other = nullptr;
    ds_service_t *service = nullptr;
    ds_service_t *placeholder = new_service(web, info(), nullptr, nullptr, 1);
    ds_service_publish_info storage;
    info().build_borrowed(&storage);
    ds_db_init_service_element("other", &other);
    recording::fail("avl_insert");
    recording::fail("malloc", recording::every);

    ds_db_add_service_element(other);
    ds_db_init_service(11, local_node, &storage, 0, &service, client, web, 0);
    ds_db_update_service(placeholder, &storage, client);
    recording::clear_faults();
    ds_db_update_service(placeholder, new_info(info()), client);

    EXPECT_EQ(fired(), (Ids{2, 3, 4, 5}));
    ds_db_free_service_element(other);
    free_publish_info(&storage);
}

// ---- registrations and notifications ----

TEST_P(LogPointsTest, registrations_that_come_and_go) {
    ds_client_reg_t *reg = nullptr;

    ds_db_add_new_registration("web", client, 5, &reg);
    ds_db_delete_registration("web", client, 1);

    EXPECT_EQ(fired(), (Ids{6, 7}));
}

TEST_P(LogPointsTest, registrations_that_fail) {
    ds_client_reg_t *reg = nullptr;
    recording::fail("chunk_malloc", recording::every);
    ds_db_add_new_registration("other", client, 5, &reg);
    EXPECT_EQ(fired(), Ids{38});
    ds_db_add_new_registration("web", client, 5, &reg);
    EXPECT_EQ(fired(), (Ids{38, 39}));
    ds_db_delete_registration("other", client, 1);
    ds_db_delete_registration("web", client, 1);

    EXPECT_EQ(fired(), (Ids{38, 39, 40, 41}));
}

TEST_P(LogPointsTest, notifications_of_news_and_deletions) {
    ds_client_reg_t *reg = new_registration(client, web);
    new_service(web, info(), client);
    clear_log();

    ds_notify_client(reg, web);
    EXPECT_EQ(fired(), (Ids{65, 71}));
    new_service(web, info(), client);
    ds_notify(web);
    EXPECT_EQ(fired(), (Ids{65, 71, 73}));
    ds_db_delete_service(ds_service_get_service_list_head(web), client);
    ds_db_delete_service(ds_service_get_service_list_head(web), client);
    ds_notify(web);

    EXPECT_EQ(fired(), (Ids{65, 71, 73, 74}));
}

TEST_P(LogPointsTest, a_notification_without_memory) {
    new_service(web, info(), client);
    clear_log();
    recording::fail("malloc", recording::every);

    ds_notify(web);

    EXPECT_EQ(fired(), (Ids{65, 66}));
}

// ---- dump responses ----

TEST_P(LogPointsTest, dump_records_without_memory) {
    ds_dump_walk_ctx context{};
    ds_dump_selem_info element_record{};
    ds_dump_client_info client_record{};
    uint32_t count = 0;
    context.scope_filter = DS_SCOPE_ANY;
    context.request_flags = DS_DUMP_REQ_SERVICES | DS_DUMP_REQ_REGISTRATIONS;
    new_service(web, info(), client);
    new_registration(client, web);
    clear_log();
    recording::fail("allocation", recording::every);

    ds_fill_services(web, &element_record, &context, &count);
    ds_fill_service_registrations(web, &element_record, &context, &count);
    ds_fill_client_services(client, &client_record, &context, &count);
    ds_fill_client_registrations(client, &client_record, &context, &count);

    EXPECT_EQ(fired(), (Ids{67, 68, 69, 70}));
}

// ---- publishing and withdrawing ----

TEST_P(LogPointsTest, publications_new_and_modified) {
    publish(client->client_idx, local_node, info(3));
    publish(client->client_idx, local_node, info(3));
    publish(500, remote_node, info());
    publish(500, remote_node, info());

    EXPECT_EQ(fired(), (Ids{31, 32, 36, 37, 62, 65}));
}

TEST_P(LogPointsTest, publications_that_fail) {
    publish(99, local_node, info());
    recording::fail("chunk_malloc", recording::every);
    publish(client->client_idx, local_node, info());
    publish(client->client_idx, local_node, PublishInfoBuilder("other").endpoints(1));

    EXPECT_EQ(fired(), (Ids{33, 42, 44}));
}

TEST_P(LogPointsTest, a_new_record_whose_database_goes_before_it_is_added) {
    static ds_globals_t *block;
    block = &globals;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_PID] =
        reinterpret_cast<uint64_t>(static_cast<ds_client_pid_fn>([](uint64_t) -> long {
            block->slot[DS_GLOBAL_SLOT_DB] = 0;
            return 100;
        }));

    ds_db_handle_service_new(client->client_idx, local_node, new_info(info()), web, client, 0);

    EXPECT_EQ(fired(), Ids{34});
    expect_leaks(); // the record stays with nobody
}

TEST_P(LogPointsTest, withdrawals_by_a_client_and_by_the_relay) {
    const ds_dsr_service_ref_t ref{77, 1};
    new_service(web, info(3), client);
    clear_log();
    unpublish("web", client->client_idx, local_node);
    new_service(new_element("far"), PublishInfoBuilder("far").path("/x"), nullptr, remote_node, 500,
                77);
    unpublish("far", 500, remote_node, &ref);

    EXPECT_EQ(fired(), (Ids{27, 28, 29, 30, 58, 59, 60, 61}));
}

TEST_P(LogPointsTest, withdrawals_of_services_without_endpoints) {
    new_service(web, PublishInfoBuilder("web"), client);
    new_service(new_element("far"), PublishInfoBuilder("far"), nullptr, remote_node, 500);
    clear_log();

    unpublish("web", client->client_idx, local_node);
    unpublish("far", 500, remote_node);

    EXPECT_EQ(fired(), (Ids{25, 26}));
}

TEST_P(LogPointsTest, withdrawals_that_fail) {
    unpublish(nullptr, client->client_idx, local_node);
    unpublish("web", 99, local_node);
    unpublish("web", client->client_idx, local_node);

    EXPECT_EQ(fired(), (Ids{45, 46, 47}));
}

// ---- restart periods ----

TEST_P(LogPointsTest, replays_of_the_relay) {
    const ds_dsr_service_ref_t ref{77, 4};
    const ds_dsr_service_ref_t first{78, 1};
    run_timer(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
    new_service(web, info(), nullptr, remote_node, 500);
    clear_log();

    publish(500, remote_node, info(), &ref);
    EXPECT_EQ(fired(), (Ids{8, 9, 10}));
    publish(501, remote_node, info(), &ref);
    EXPECT_EQ(fired(), (Ids{8, 9, 10, 14}));
    publish(501, remote_node, info(), &ref);
    EXPECT_EQ(fired(), (Ids{8, 9, 10, 11, 14}));
    publish(502, remote_node, info(), &first);

    EXPECT_NE(console().find("...new service"), std::string::npos);
}

TEST_P(LogPointsTest, a_replay_without_memory) {
    const ds_dsr_service_ref_t ref{77, 4};
    run_timer(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
    recording::fail("chunk_malloc", recording::every);

    publish(500, remote_node, info(), &ref);

    EXPECT_EQ(fired(), (Ids{8, 12, 43}));
}

TEST_P(LogPointsTest, a_publication_that_takes_over_its_relay_owned_twin) {
    run_timer(DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
    new_service(web, info(), nullptr, nullptr, 1)->pid = 100;
    clear_log();

    ds_db_handle_service_new(client->client_idx, local_node, new_info(info()), web, client, 0);

    EXPECT_EQ(fired(), (Ids{15, 16, 17, 35, 36, 62, 65}));
}

TEST_P(LogPointsTest, the_end_of_a_restart_period) {
    const auto add = [&](ds_node_t *node, uint32_t flags) {
        new_service(web, info(), nullptr, node, 500)->flags = flags;
    };
    add(local_node, DS_SERVICE_FLAG_RECONCILE);
    add(local_node, DS_SERVICE_FLAG_DSR_CONFIRMED);
    add(local_node, 0);
    add(remote_node, DS_SERVICE_FLAG_RECONCILE);
    add(remote_node, DS_SERVICE_FLAG_DSR_CONFIRMED);
    add(remote_node, 0);
    clear_log();

    ds_db_dsr_restarted();
    for (ds_service_t *service = ds_service_get_service_list_head(web); service != nullptr;
         service = ds_service_get_next_in_service_list(service))
        if (service->node == remote_node) service->flags = service->service_id % 3;
    ds_db_finalize_restart();

    EXPECT_EQ(fired(), (Ids{19, 20, 21, 22, 23, 24, 49, 50, 58, 59, 65}));
}

// ---- the relay ----

TEST_P(LogPointsTest, updates_to_the_relay) {
    ds_service_t *service = new_service(web, info(), client);
    connect_relay();
    clear_log();

    ds_remote_notify(service, DS_REMOTE_PUBLISHED);
    EXPECT_EQ(fired(), (Ids{62, 76}));
    recording::fail("malloc", recording::every);
    ds_remote_notify(service, DS_REMOTE_PUBLISHED);

    EXPECT_EQ(fired(), (Ids{62, 75, 76}));
}

TEST_P(LogPointsTest, updates_from_the_relay) {
    receive(DSR_ADD);
    EXPECT_EQ(fired(), (Ids{37, 62, 65, 77, 80}));
    clear_log();
    recording::fail("memdup", recording::every);
    receive(DSR_ADD);
    EXPECT_EQ(fired(), (Ids{77, 78}));
    clear_log();
    recording::clear_faults();
    recording::fail("chunk_malloc", recording::every);
    receive(DSR_ADD, "other");

    EXPECT_EQ(fired(), (Ids{42, 77, 79}));
}

TEST_P(LogPointsTest, the_relay_comes_and_goes) {
    run_timer(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
    dsr_connect_cb();
    EXPECT_EQ(fired(), (Ids{81, 82, 83}));
    dsr_disconn_cb();

    EXPECT_EQ(fired(), (Ids{49, 81, 82, 83, 84}));
}

TEST_P(LogPointsTest, a_node_goes_down) {
    const uint8_t own_address[6] = {2, 0, 0, 0, 0, 0xff};
    const uint8_t peer_address[6] = {2, 0, 0, 0, 0, 2};
    new_service(web, info(), nullptr, remote_node, 500);
    clear_log();

    dsr_peer_down_cb(peer_address);
    EXPECT_EQ(fired(), (Ids{18, 48, 58, 59, 85}));
    dsr_peer_down_cb(own_address);

    EXPECT_EQ(fired(), (Ids{18, 48, 58, 59, 85, 86}));
}

// ---- dumps ----

TEST_P(LogPointsTest, dumps_of_everything) {
    new_registration(client, web);
    new_service(web, PublishInfoBuilder("web").endpoints(1).path("/p").raw(9, {}), client);
    new_service(web, PublishInfoBuilder("web").path("/p"), client);
    clear_log();

    ds_db_dump(0);
    ds_db_reg_dump(0);
    trace_endpoints(ds_service_get_next_in_service_list(ds_service_get_service_list_head(web)),
                    ds_lib_rtrace[DS_CHANNEL_PUB]);

    EXPECT_EQ(fired(), (Ids{51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64}));
}
