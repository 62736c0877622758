// The directory's own counters.
#pragma once
#include "ds.pb.h"

namespace ds::host {

void fill_stats(v1::StatsReply &reply);

} // namespace ds::host
