// What is left when memory runs out, wherever it does.
//
// The scenario of allocation_scenario.h is played once to count the calls of a function that can
// fail, then twice for each of these calls: with only that call failing, and with that call and
// every later one failing, in the middle of an operation or not, until the scenario is over. After
// every single operation the database must be sound; at the end nothing may be out of reach and the
// directory has to serve new clients as if nothing had happened.
//
// A dump ends the process when its outermost array cannot be had. Those calls are played as death
// tests; while everything else fails, each dump gets that one array.

#include "allocation_scenario.h"
#include "database_validator.h"

namespace {

// Which calls of a function fail: the nth one (0 for none), and those after it or not.
struct Plan {
    std::string function;
    uint32_t nth = 0;
    bool is_lasting = false;
};

bool is_spared(const std::string &call) {
    return call.ends_with(" spared");
}

class AllocationSweepTest : public AllocationScenario {
  protected:
    // ---- one round ----

    // Plays the scenario; afterwards calls_made holds the calls of the function, in order.
    void play(const Plan &plan) {
        globals.slot[DS_GLOBAL_SLOT_TIMER_PARENT] =
            reinterpret_cast<uint64_t>(recording::new_timer("parent"));
        open_console();
        set_faults(plan);
        for (const Operation &operation : operations) {
            const testing::ScopedTrace where(__FILE__, __LINE__, operation.name);
            operation.run();
            EXPECT_EQ(recording::joined(validate(database())), "");
            EXPECT_EQ(recording::lock_depth(), 0u);
            if (HasFailure()) return;
        }
        recording::clear_faults();
        calls_made.clear();
        for (const std::string &line : recording::calls())
            if (is_call_of(plan.function, line)) calls_made.push_back(line);
    }

    static void set_faults(const Plan &plan) {
        if (plan.nth == 0) return;
        if (plan.is_lasting)
            recording::fail_from(plan.function, plan.nth);
        else
            recording::fail(plan.function, plan.nth);
    }

    static bool is_call_of(const std::string &function, const std::string &line) {
        if (function == "allocation")
            return line.starts_with("malloc(") || line.starts_with("calloc(") ||
                   line.starts_with("memdup(");
        return line.starts_with(function + "(");
    }

    // A whole life: the scenario, later work, the fixture's checks, and a fresh world after it.
    void live_through(const Plan &plan) {
        const testing::ScopedTrace what(__FILE__, __LINE__,
                                        plan.function + " " + std::to_string(plan.nth) +
                                            (plan.is_lasting ? " and all later ones" : ""));
        play(plan);
        if (HasFailure()) return;
        EXPECT_GE(calls_made.size(), plan.nth) << "the call that should fail was never made";
        expect_failures_as_planned(plan);
        check_later_work("later", {9});
        check_later_work("web", {});
        start_again();
    }

    // Calls that failed say so at their end.
    void expect_failures_as_planned(const Plan &plan) const {
        for (uint32_t call = 1; call <= calls_made.size(); ++call) {
            const std::string &line = calls_made[call - 1];
            const bool is_due =
                plan.is_lasting ? call >= plan.nth && !is_spared(line) : call == plan.nth;
            EXPECT_EQ(line.ends_with(" = null") || line.ends_with(" = failure"), is_due)
                << "call " << call << ", " << line;
        }
    }

    void start_again() {
        TearDown();
        SetUp();
        sent.clear();
        pids.clear();
        paths.clear();
        publisher = watcher = other = nullptr;
    }

    // New clients publish, watch, change, withdraw and leave. Of a name that the scenario used,
    // only the difference that a publication makes is known.
    void check_later_work(const std::string &name, const std::vector<uint8_t> &only) {
        ds_client_t *author = arrive(0x70, 700);
        ds_client_t *reader = arrive(0x71, 701);
        ASSERT_TRUE(author != nullptr && reader != nullptr);
        ds_client_reg_t *reg = watch(reader, name.c_str());
        ASSERT_NE(reg, nullptr);
        forget_calls();

        EXPECT_EQ(publish(author, one_endpoint(name, 2, 9).instance("later;")), 0);
        const std::vector<uint8_t> published = last_told(0x71);
        EXPECT_EQ(publish(author, one_endpoint(name, 2, 10).instance("later;")), 0);
        const std::vector<uint8_t> changed = last_told(0x71);
        EXPECT_EQ(withdraw(author, name.c_str(), 2, "later;"), 0);
        const std::vector<uint8_t> withdrawn = last_told(0x71);

        ASSERT_EQ(published.size(), withdrawn.size() + 1);
        ASSERT_EQ(changed.size(), published.size());
        EXPECT_EQ(published.front(), 9);
        EXPECT_EQ(changed.front(), 10);
        if (!only.empty()) {
            EXPECT_EQ(published, only);
        }
        EXPECT_EQ(ds_db_delete_registration(name.c_str(), reader, reg->handle), 0);
        EXPECT_EQ(publish(author, one_endpoint(name, 3, 11)), 0);
        EXPECT_EQ(ds_db_delete_client(author), 0);
        EXPECT_EQ(ds_db_delete_client(reader), 0);
        EXPECT_EQ(ds_db_find_client_by_client_hdl(0x70), nullptr);
    }

    // The last bytes of the addresses in the newest message to that client; forgets the messages.
    std::vector<uint8_t> last_told(uint64_t client_hdl) {
        std::vector<uint8_t> result;
        bool is_told = false;
        for (const SentMessage &message : told()) {
            if (message.client_hdl != client_hdl) continue;
            is_told = true;
            result.clear();
            for (const SentMessage::Entry &entry : message.entries)
                result.push_back(entry.ep_addr.size() > 4 ? entry.ep_addr[4] : 0);
        }
        EXPECT_TRUE(is_told);
        sent.clear();
        return result;
    }

    // ---- sweeps ----

    void sweep(const std::string &function, uint32_t calls_at_least);

    Lines calls_made;
};

void AllocationSweepTest::sweep(const std::string &function, uint32_t calls_at_least) {
    play({function});
    ASSERT_FALSE(HasFailure());
    const Lines made = calls_made;
    start_again();
    ASSERT_GE(made.size(), calls_at_least);
    for (uint32_t nth = 1; nth <= made.size() && !HasFailure(); ++nth) {
        if (is_spared(made[nth - 1])) {
            EXPECT_DEATH((spares_dumps = false, play({function, nth})),
                         "Assertion `c?info != NULL' failed");
            continue;
        }
        live_through({function, nth});
        if (!HasFailure()) live_through({function, nth, true});
    }
}

} // namespace

TEST_F(AllocationSweepTest, memory_that_runs_out_anywhere_leaves_a_working_directory) {
    sweep("allocation", 100);
}

TEST_F(AllocationSweepTest, one_kind_of_allocation_that_runs_out_leaves_a_working_directory) {
    sweep("malloc", 20);
    sweep("calloc", 20);
    sweep("memdup", 20);
}

TEST_F(AllocationSweepTest, a_pool_that_is_exhausted_anywhere_leaves_a_working_directory) {
    sweep("chunk_malloc", 30);
}

TEST_F(AllocationSweepTest, a_tree_that_refuses_any_name_leaves_a_working_directory) {
    sweep("avl_insert", 8);
}

TEST_F(AllocationSweepTest, a_table_that_refuses_any_node_leaves_a_working_directory) {
    sweep("vanto_protected_hashtable_put", 4);
}
