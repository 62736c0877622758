// What goes wrong in a world.
#pragma once
#include "sim/base/plan.h"

namespace ds::sim {

class World;

void play_fault(World &world, const Op &op);

// Every fault ends: ways are open, what is down and not gone for good is started, and a daemon that
// lacked memory is started anew. A frozen machine wakes at its time: its events wait for that.
void end_faults(World &world);

} // namespace ds::sim
