// What is left when memory runs out, wherever it does.
//
// The scenario of allocation_scenario.h is played once to count the calls of a function that can
// fail, then again for each of these calls: once with only that call failing, once with that call
// failing and all of them from the next operation on. After every single operation the database
// must be sound; at the end nothing may be out of reach and the directory has to serve new clients
// as if nothing had happened.
//
// A dump ends the process when its outermost array cannot be had. Those calls are played as death
// tests, and while everything fails, each dump gets that one array.
#include <limits>
#include <set>

#include "allocation_scenario.h"
#include "database_validator.h"

namespace {

constexpr size_t never = std::numeric_limits<size_t>::max();

// Which calls of a function fail: the nth one (0 for none), and each from the start of an operation
// on.
struct Plan {
    std::string function;
    uint32_t nth = 0;
    size_t all_from_operation = never;
};

class AllocationSweepTest : public AllocationScenario {
  protected:
    // ---- one round ----

    // Plays the scenario; afterwards calls_made[k] is the number of calls up to the end of
    // operation k.
    void play(const Plan &plan) {
        globals.slot[DS_GLOBAL_SLOT_TIMER_PARENT] =
            reinterpret_cast<uint64_t>(recording::new_timer("parent"));
        open_console();
        calls_made.clear();
        calls_of_function.clear();
        lines_seen = 0;
        if (plan.nth != 0) recording::fail(plan.function, plan.nth);
        for (size_t index = 0; index < operations.size(); ++index) {
            const Operation &operation = operations[index];
            const testing::ScopedTrace where(__FILE__, __LINE__, operation.name);
            if (index >= plan.all_from_operation) fail_all(plan.function, operation.is_dump);
            operation.run();
            count_calls(plan.function);
            EXPECT_EQ(recording::joined(validate(database())), "");
            EXPECT_EQ(recording::lock_depth(), 0u);
            if (HasFailure()) return;
        }
        recording::clear_faults();
    }

    // In a dump the first allocation is the outermost array, or a node record whose second
    // allocation is its address; a nested array is never the first.
    static void fail_all(const std::string &function, bool is_dump) {
        recording::clear_faults();
        if (!is_dump)
            recording::fail(function, recording::every);
        else if (function == "allocation")
            recording::fail(function, 2);
        else if (function != "calloc")
            recording::fail(function, recording::every);
    }

    static bool is_call_of(const std::string &function, const std::string &line) {
        if (function == "allocation")
            return line.starts_with("malloc(") || line.starts_with("calloc(") ||
                   line.starts_with("memdup(");
        return line.starts_with(function + "(");
    }

    // Reads what the last operation added to the log.
    void count_calls(const std::string &function) {
        const Lines &lines = recording::calls();
        for (; lines_seen < lines.size(); ++lines_seen)
            if (is_call_of(function, lines[lines_seen]))
                calls_of_function.push_back(lines[lines_seen]);
        calls_made.push_back(static_cast<uint32_t>(calls_of_function.size()));
    }

    // A whole life: the scenario, later work, the fixture's checks, and a fresh world after it.
    void live_through(const Plan &plan) {
        const testing::ScopedTrace what(__FILE__, __LINE__,
                                        plan.function + " " + std::to_string(plan.nth) +
                                            ", all from operation " +
                                            std::to_string(plan.all_from_operation));
        play(plan);
        if (HasFailure()) return;
        EXPECT_GE(calls_made.back(), plan.nth) << "the call that should fail was never made";
        check_later_work("later", {9});
        check_later_work("web", {});
        start_again();
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
    void sweep_operations(const std::string &function);
    std::set<uint32_t> fatal_allocations() const;

    std::vector<uint32_t> calls_made;
    Lines calls_of_function;
    size_t lines_seen = 0;
};

// Tells the array of a dump from a node record that is made for its address.
bool is_outermost(const std::string &call) {
    const auto allocates = [&](size_t size) {
        return call.starts_with("calloc(") && call.ends_with(", " + std::to_string(size) + ")");
    };
    return allocates(sizeof(ds_dump_selem_info)) || allocates(sizeof(ds_dump_client_info));
}

// The first allocation of each dump that has something to show.
std::set<uint32_t> AllocationSweepTest::fatal_allocations() const {
    std::set<uint32_t> result;
    for (size_t index = 1; index < operations.size(); ++index) {
        const uint32_t before = calls_made[index - 1];
        const bool allocates = calls_made[index] != before;
        if (operations[index].is_dump && allocates && is_outermost(calls_of_function[before]))
            result.insert(before + 1);
    }
    return result;
}

void AllocationSweepTest::sweep(const std::string &function, uint32_t calls_at_least) {
    play({function});
    ASSERT_FALSE(HasFailure());
    const std::vector<uint32_t> made = calls_made;
    const std::set<uint32_t> fatal =
        function == "allocation" ? fatal_allocations() : std::set<uint32_t>{};
    start_again();
    ASSERT_GE(made.back(), calls_at_least);
    size_t operation = 0;
    for (uint32_t nth = 1; nth <= made.back() && !HasFailure(); ++nth) {
        while (made[operation] < nth)
            ++operation;
        if (fatal.count(nth) != 0) {
            EXPECT_DEATH(play({function, nth}), "Assertion `c?info != NULL' failed");
            continue;
        }
        live_through({function, nth});
        if (!HasFailure()) live_through({function, nth, operation + 1});
    }
}

// An operation that makes no such call is left out: its round is that of the next one.
void AllocationSweepTest::sweep_operations(const std::string &function) {
    play({function});
    ASSERT_FALSE(HasFailure());
    const std::vector<uint32_t> made = calls_made;
    start_again();
    for (size_t index = 0; index < made.size() && !HasFailure(); ++index)
        if (made[index] != (index == 0 ? 0 : made[index - 1])) live_through({function, 0, index});
}

} // namespace

TEST_F(AllocationSweepTest, memory_that_runs_out_anywhere_leaves_a_working_directory) {
    sweep("allocation", 100);
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

TEST_F(AllocationSweepTest, what_fails_from_the_start_of_any_operation_leaves_a_working_directory) {
    for (const char *function : {"allocation", "malloc", "calloc", "memdup", "chunk_malloc",
                                 "avl_insert", "vanto_protected_hashtable_put"})
        sweep_operations(function);
}
