// What has to hold, looked at while a world runs and when it has settled. The first thing that does
// not hold ends the run. Each check is a file of its own; this is where they are called.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sim/world/client.h"
#include "sim/world/snapshot.h"

namespace ds::sim {

class Daemon;
class World;

class Checkers {
  public:
    explicit Checkers(World &world) : world_(world) {}

    void machine_halted(int node);
    // The daemon is entered.
    void after_turn(Daemon &daemon);
    void on_snapshot(Daemon &daemon, const Snapshot &snapshot);
    // Before the watch is brought up to date with the snapshot, but for what is reported.
    void on_told(const Client &client, const Snapshot &snapshot, const Client::Watch &watch);
    void when_settled();
    void when_empty();

  private:
    World &world_;
};

// ---- the checks; empty or nothing: all is well ----

// The records are linked both ways, the tree is in order, counts are right. structure.cpp
std::string find_broken_structure(const ds_db_t *db);

// Outside restart periods no service waits for its publisher. placeholders.cpp
std::string find_stale_placeholder(const ds_db_t *db);

// The snapshot shows exactly those services of this node that clients have published and neither
// withdrawn nor left. continuity.cpp
std::string find_discontinuity(const Daemon &daemon, const Snapshot &snapshot);

// While the relay is there, and for as long as a restart period lasts when it is away, the snapshot
// shows every service of other nodes that the engine has told and not taken back; and nothing is
// said to be settled before it has told anything. remote.cpp
std::string find_remote_gap(const Daemon &daemon, const Snapshot &snapshot, Time now);

// No watcher is told an older version than before in the same session. version.cpp
std::string find_regress(const Client &client, const Snapshot &snapshot,
                         const Client::Watch &watch);

// Every daemon shows what the living clients publish, within its scope, and nothing else; the store
// holds what is of scope rack and system. convergence.cpp
std::string find_divergence(World &world);

// Every watcher's last word is the newest state. newest.cpp
std::string find_outdated_watcher(World &world);

// Nobody shows a service of a machine that is down for longer than it can look alive.
// dead_nodes.cpp
std::string find_dead_service(World &world, int node, Time halted_at);
inline constexpr Time death_noticed_after = 15 * second;

// Nothing is left of clients that have gone. memory.cpp
std::string find_leftovers(World &world);

} // namespace ds::sim
