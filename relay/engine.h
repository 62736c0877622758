// The seam to a replication engine.
//
// The directory hands every update for other nodes to one engine. What an engine learns from other
// nodes (connected, disconnected, an update, a node that went down) it reports by calling the
// directory itself: dsr_connect_cb, dsr_disconn_cb, dsr_receive_cb, dsr_peer_down_cb. Everything
// runs on the daemon's thread.
#pragma once
#include "platform_default/platform_default.h"

namespace ds::relay {

class Engine {
  public:
    virtual ~Engine() = default;

    // What the status of the daemon shows, for example "none".
    virtual const char *name() const = 0;

    // Takes one update on its way out. What the update points to is valid only during the call.
    // 0 = taken, -1 = not taken; the directory does not ask again, so an engine that cannot send
    // now has to remember the update or to send everything anew later.
    virtual int send(const dsr_update_t &update) = 0;
};

} // namespace ds::relay
