// JSON of what operators ask for. Keys and their order are part of the interface: add, never
// rename.
//
// A time KEY is UTC with nanoseconds; KEY_age_ns is how long ago that was at `now_ns`. Both are
// null for what never happened.
#pragma once
#include <cstdint>

#include "cli/json.h"

namespace ds::cli {

// A name with its registrations and, unless the dump is one of registrations, its services.
Json dumped_name_json(const v1::DumpedName &name, v1::DumpKind kind, std::uint64_t now_ns);
// A client without what it holds.
Json client_json(const v1::DumpedClient &client, std::uint64_t now_ns);
// A client with its services and registrations.
Json dumped_client_json(const v1::DumpedClient &client, std::uint64_t now_ns);
Json node_json(const v1::Node &node, std::uint64_t now_ns);
Json stats_json(const v1::StatsReply &stats, std::uint64_t now_ns);

} // namespace ds::cli
