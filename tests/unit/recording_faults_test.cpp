// The faults of the recording platform, which the sweeps of failing calls rely on.
#include "library_test.h"

namespace {

class RecordingFaultsTest : public LibraryTest {
  protected:
    // Which of the next calls fail, "x" for a failure.
    static std::string next(const char *function, int calls) {
        std::string result;
        for (int call = 0; call < calls; ++call)
            result += recording::should_fail(function).fails ? 'x' : '.';
        return result;
    }
};

} // namespace

TEST_F(RecordingFaultsTest, a_single_fault_is_one_call) {
    recording::fail("malloc", 3);

    EXPECT_EQ(next("malloc", 6), "..x...");
}

TEST_F(RecordingFaultsTest, a_fault_of_every_call_lasts_until_the_faults_are_cleared) {
    recording::fail("malloc", recording::every);

    EXPECT_EQ(next("malloc", 3), "xxx");
    recording::clear_faults();
    EXPECT_EQ(next("malloc", 3), "...");
}

TEST_F(RecordingFaultsTest, a_lasting_fault_begins_at_its_call) {
    recording::fail_from("malloc", 3);

    EXPECT_EQ(next("malloc", 6), "..xxxx");
    EXPECT_EQ(next("calloc", 2), "..") << "another function";
    recording::clear_faults();
    EXPECT_EQ(next("malloc", 3), "...");
}

TEST_F(RecordingFaultsTest, allocations_are_counted_together_whatever_their_function) {
    recording::fail_from("allocation", 3);

    EXPECT_EQ(next("malloc", 1), ".");
    EXPECT_EQ(next("calloc", 1), ".");
    EXPECT_EQ(next("memdup", 1), "x");
    EXPECT_EQ(next("malloc", 1), "x");
}

TEST_F(RecordingFaultsTest, a_spared_array_is_counted_and_had_once) {
    recording::fail_from("calloc", 1);
    recording::spare_calloc_of(sizeof(ds_node_t));

    const uint64_t spared = reinterpret_cast<uintptr_t>(new_node(1));
    const uint64_t failed = reinterpret_cast<uintptr_t>(new_node(2));

    EXPECT_GT(spared, 127u) << "a record";
    EXPECT_LE(failed, 127u) << "a stand-in";
}
