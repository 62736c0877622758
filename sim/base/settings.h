// What a world is like. All of it comes from the scenario and the seed, or from the command line.
#pragma once
#include <cstdint>
#include <string>

#include "sim/base/queue.h"

namespace ds::sim {

// Something that is broken on purpose, for the proof that the checkers find it.
enum class Flaw {
    none,
    engine_loses_update,     // one change in many never reaches the directory
    engine_reorders,         // a change is followed by the one before it
    engine_keeps_dead_nodes, // the end of a node is not reported
    engine_forgets_write,    // one write in many never reaches the store
    host_never_ends_period,  // the timers of the restart periods do not expire
    host_forgets_to_settle,  // periods end, but what waits in them is not settled
    host_loses_notification, // one marked registration in many is not served
    host_shows_old_snapshot, // one snapshot in many is the one before it
    host_drops_service,      // one snapshot in many lacks an instance
    host_settles_early,      // snapshots never say that a restart period is open
    host_keeps_departed,     // a client's end is not told to the directory
    host_leaks,              // one publish info in many is never given back
    library_loses_link,      // a link of a list is cut
    host_stands_still,       // an event that brings about itself
    host_loops,              // a call that does not come back
    host_crashes,            // the process ends in a signal
};

struct Settings {
    std::string scenario;
    std::uint64_t seed = 0;
    std::uint32_t nodes = 5;
    std::uint32_t racks = 1;
    Time duration = 600 * second;
    bool is_holding = false;        // the engines' answer to outages: hold, else expire
    bool reuses_daemon_pid = false; // as in a container: every life of a daemon has the same pid
    bool reuses_client_pid = false;
    std::uint32_t duplicates_per_mille = 20; // changes that the engine delivers twice
    Time delay_max = 20 * ms;                // of one message between node and store
    Time window = 5 * second;                // for clients to come back, as configured
    Flaw flaw = Flaw::none;
};

} // namespace ds::sim
