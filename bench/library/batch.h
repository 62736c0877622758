// Timing of calls that change the database: a batch of them is timed as a whole, and what prepares
// or undoes it stays outside of the time. One iteration is one batch.
#pragma once
#include <benchmark/benchmark.h>

#include <ctime>

#include "database.h"

namespace ds::bench {

inline constexpr std::int64_t batch_calls = 1000;

// The sizes that every benchmark of the database runs at.
inline void at_each_size(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgName("services")->Arg(1'000)->Arg(100'000)->Arg(1'000'000);
}

// Seconds of CPU time that this thread has used: what others do on the machine does not count.
inline double thread_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Function> void time_batch(benchmark::State &state, Function &&function) {
    const double start = thread_seconds();
    function();
    state.SetIterationTime(thread_seconds() - start);
}

// What one iteration holds: calls, notifications or records. per_call is the time of one of them.
inline void report_calls(benchmark::State &state, std::int64_t calls_per_iteration) {
    using benchmark::Counter;
    state.counters["per_call"] =
        Counter(static_cast<double>(calls_per_iteration),
                static_cast<Counter::Flags>(Counter::kIsIterationInvariantRate | Counter::kInvert));
}

} // namespace ds::bench
