// The measurements. Each takes fresh servers and adds its values to the figures.
#pragma once
#include <vector>

#include "figures.h"
#include "pairs.h"
#include "server_process.h"

namespace ds::bench {

struct Options {
    Programs programs;
    int runs = 5;
    double seconds = 1; // of one measured run
    std::vector<int> watchers = {1, 100, 1000};
};

// One client changes one publication, each change after the answer to the one before.
void measure_round_trip(const Options &options, Figures &figures);
// Clients with 64 unanswered publications of new names each.
void measure_pipelined(const Options &options, Figures &figures);
// One publisher, many watchers: the time until the last was told, and what is told in a second.
void measure_fan_out(const Options &options, Figures &figures);
// What a service and an idle session take.
void measure_memory(const Options &options, Figures &figures);

// The round trip of one user while another floods the daemon.
void measure_fairness(const Options &options, Figures &figures);

} // namespace ds::bench
