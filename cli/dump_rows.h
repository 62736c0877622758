// Tables of what operators ask for. Columns and their order are part of the interface: wide adds
// columns behind those of the table.
//
// A time is local wall-clock time, and the column behind it says how long ago that was at `now_ns`;
// both are empty for what never happened.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "cli/output.h"
#include "ds.pb.h"

namespace ds::cli {

using Cells = std::vector<std::string>;

Cells dump_titles(v1::DumpKind kind, bool wide);
// One row for each service of a name.
std::vector<Cells> service_rows(const v1::DumpedName &name, bool wide, std::uint64_t now_ns);
// One row for each registration of a name.
std::vector<Cells> registration_rows(const v1::DumpedName &name, bool wide, std::uint64_t now_ns);
// One row for each thing that a client holds; one with the client alone when it holds nothing.
std::vector<Cells> holding_rows(const v1::DumpedClient &client, bool wide, std::uint64_t now_ns);

Cells client_titles(bool wide);
Cells client_row(const v1::DumpedClient &client, bool wide, std::uint64_t now_ns);

Cells node_titles(bool wide);
Cells node_row(const v1::Node &node, bool wide, std::uint64_t now_ns);

// The counters with what follows from them: how many there are now.
Fields stats_fields(const v1::StatsReply &stats, std::uint64_t now_ns);

// Empty when the record holds everything, else a sentence that says what a frame had no room for.
std::string what_was_cut(const v1::DumpedName &name);
std::string what_was_cut(const v1::DumpedClient &client);

} // namespace ds::cli
