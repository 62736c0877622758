// The directory's own counters, whole and by node.
#pragma once
#include "ds.pb.h"
#include "host/directory.h"

namespace ds::host {

void fill_stats(v1::StatsReply &reply);
void fill_nodes(const Directory &directory, v1::NodesReply &reply);

} // namespace ds::host
