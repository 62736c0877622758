// The measurements of replication. Each takes fresh servers and adds its values to the figures.
//
// What the daemons do over the store is measured beside what a bare client does with the store
// through the same gateway and with the same HTTP client. The two take turns, and a ratio is taken
// within each pair.
#pragma once
#include <string>

#include "bench/daemon/figures.h"
#include "bench/daemon/pairs.h"

namespace ds::bench::replication {

// The two sides of a figure.
inline constexpr Kind replicated = Kind::daemon;
inline constexpr Kind bare = Kind::null_server;

inline constexpr double us_per_s = 1e6;
inline constexpr double bytes_per_mb = 1024 * 1024;

struct Options {
    std::string daemon;         // program
    std::string store = "etcd"; // program
    int runs = 5;
    double seconds = 1;             // of one measured run
    std::size_t services = 100'000; // of a bulk
    double idle_seconds = 65;       // an audit, which comes every minute, is in it
};

// From a change on one node until a watcher on another is told.
void measure_latency(const Options &options, Figures &figures);
// Many publications at once, until another node holds them all.
void measure_bulk(const Options &options, Figures &figures);
// What a service takes on its own node and on another, and what a node takes from the store that
// connects to it when it is full.
void measure_memory(const Options &options, Figures &figures);
// A node with many services dies.
void measure_death(const Options &options, Figures &figures);
// What nodes cost the store that have nothing to say.
void measure_idle(const Options &options, Figures &figures);
// Changes at a steady pace, and what each costs everybody.
void measure_changes(const Options &options, Figures &figures);
// What each further stream, and so each further node, costs the store for a change.
void measure_streams(const Options &options, Figures &figures);

} // namespace ds::bench::replication
