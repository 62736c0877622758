// The two log points that never fire, each approached as closely as a host can get, and what
// happens there instead. log_points_test.cpp demands that these and no others stay silent.
#include <algorithm>

#include "faulty_console.h"
#include "lifecycle_fixture.h"

namespace {

class UnreachablePointsTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        web = new_element("web");
        remote = new_node(2);
    }

    static size_t count_of(uint32_t id) { return recording::traces_of(id).size(); }

    ds_service_elem_t *web = nullptr;
    ds_node_t *remote = nullptr;
};

// ---- 13: adding the record of a replay fails ----

class ReplayedRecordTest : public UnreachablePointsTest {
  protected:
    void SetUp() override {
        UnreachablePointsTest::SetUp();
        set_relay_timer();
        new_service(web, one_endpoint("web", 2, 9), nullptr, remote, 300);
        recording::clear_calls();
    }

    // Nothing there is of that process, so the replay is entered as a new record.
    int replay(uint32_t pid) { return deliver(pid, remote, one_endpoint("web", 2).instance("a;")); }
};

} // namespace

TEST_F(ReplayedRecordTest, no_code_of_the_host_runs_between_making_and_adding_it) {
    open_console();

    EXPECT_EQ(replay(301), 0);

    const Lines &calls = recording::calls();
    const auto made = std::find_if(calls.begin(), calls.end(), [](const std::string &line) {
        return line.starts_with("chunk_malloc(service)");
    });
    const auto added = std::find_if(made, calls.end(), [](const std::string &line) {
        return line.starts_with("dbly_linkage_link(");
    });
    ASSERT_NE(added, calls.end());
    EXPECT_EQ(recording::joined({made + 1, added}),
              "lock()\nunlock()\nds_get_scope()\nds_get_instance()\nmalloc(3)\nlock()\n");
}

// Wherever in the operation the host loses its database, the record is made and added or neither.
TEST_F(ReplayedRecordTest, a_database_lost_on_the_way_fails_the_making_and_never_the_adding) {
    uint32_t failures = 0;
    uint32_t successes = 0;
    for (uint32_t nth = 1, is_over = 0; is_over == 0; ++nth) {
        recording::clear_calls();
        FaultyConsole console(nth, [this] { forget_database(); });
        globals.slot[DS_GLOBAL_SLOT_CONSOLE] = console.slot();

        const int result = replay(301);

        globals.slot[DS_GLOBAL_SLOT_CONSOLE] = 0;
        restore_database();
        is_over = console.has_run() ? 0 : 1;
        EXPECT_EQ(count_of(13), 0u);
        EXPECT_EQ(count_of(12), result == 0 ? 0u : 1u);
        ASSERT_EQ(services_of(web).size(), result == 0 ? 2u : 1u);
        if (result == 0) ds_db_drop_service(newest("web")); // the next one starts from here
        ++(result == 0 ? successes : failures);
    }
    EXPECT_GT(failures, 2u);
    EXPECT_GT(successes, 1u);
}

TEST_F(ReplayedRecordTest, without_an_element_there_is_no_replay_to_enter) {
    const ds_dsr_service_ref_t ref = {0x77, 5};

    EXPECT_EQ(ds_db_resolve_service_info_from_dsr(301, remote, new_info(one_endpoint("web")),
                                                  nullptr, &ref),
              -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

// ---- 72: one registration is told of a deletion ----

TEST_F(UnreachablePointsTest, one_registration_is_left_to_the_next_run_when_nothing_is_live) {
    ds_client_t *publisher = new_publisher();
    ds_client_reg_t *reg = watch(new_watcher(), "web");
    const auto expect_silence = [&](const char *why) {
        const testing::ScopedTrace what(__FILE__, __LINE__, why);
        reg->creg_ver = web->selem_version + 1; // was told of something else
        const ds_client_reg_t before = *reg;
        forget_calls();

        EXPECT_EQ(ds_notify_client(reg, web), 0);

        EXPECT_EQ(count_of(72), 0u);
        EXPECT_TRUE(sent.empty());
        EXPECT_EQ(memcmp(reg, &before, sizeof before), 0);
        EXPECT_EQ(ds_notify(web), 0);
        EXPECT_EQ(slots_called(), (Ids{41, 45, 44})) << "a run tells it";
        EXPECT_EQ(count_of(74), 1u);
    };

    expect_silence("no service");
    new_placeholder(web, one_endpoint("web", 2), local_node, 100);
    expect_silence("a replayed service that nobody owns");
    new_service(web, PublishInfoBuilder("web"), publisher);
    expect_silence("a service without endpoints");
    forget_database();
    expect_silence("no database");
}
