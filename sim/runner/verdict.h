// What became of one seed, in a form that goes through a pipe.
#pragma once
#include <cstdint>

#include "sim/base/plan.h"

namespace ds::sim {

enum class Ending : std::uint8_t { begun, good, wrong, crashed, stuck };

struct Verdict {
    Ending ending = Ending::begun;
    std::uint64_t index = 0; // in the list of what is to be run
    std::uint64_t seed = 0;
    std::uint64_t hash = 0;
    std::uint64_t events = 0;
    Time time = 0;
    Time failed_at = 0;
    char checker[24] = {};
    char text[480] = {};
};

// What is to be run.
struct Job {
    const char *scenario = nullptr;
    Settings settings;
};

Plan plan_of(const Job &job);
// In this process.
Verdict run_here(const Plan &plan, bool prints_trace);
// In a process of its own, which may crash; it is ended when it takes longer than that.
Verdict run_apart(const Plan &plan, int seconds_max);

const char *text_of(Ending ending);

} // namespace ds::sim
