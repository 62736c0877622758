// The command line of ds_sim.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/base/settings.h"

namespace ds::sim {

struct Options {
    std::string program;
    std::string scenario = "all";
    std::uint64_t first_seed = 1;
    std::uint64_t seeds = 1000;
    int jobs = 1;
    int seconds_max = 60; // for one seed
    Settings settings;
    bool is_single = false; // one seed, in this process
    std::vector<std::size_t> only;
    bool prints_trace = false;
    bool prints_plan = false;
    bool prints_each = false;
    bool keeps_going = false;
    bool reduces = true;
    bool is_self_test = false;
    std::string hash_file; // what the seeds named in it came to; empty: none is looked at
};

// The exit status when there is nothing more to do.
std::optional<int> parse_options(int argc, char **argv, Options &options);

const char *name_of(Flaw flaw);

} // namespace ds::sim
