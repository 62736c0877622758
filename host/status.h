// What the daemon tells of itself and of its relay.
#pragma once
#include "ds.pb.h"
#include "host/server.h"

namespace ds::host {

void fill_status(Server &server, v1::StatusReply &reply);

} // namespace ds::host
