// Pages of a dump.
//
// A page is made at once from the library's records, and it is bounded: in bytes, so that a frame
// holds it, and in names looked at, so that the dump of a large directory holds up nobody else.
#pragma once
#include <functional>
#include <string_view>

#include "ds.pb.h"
#include "host/directory.h"
#include "host/session_table.h"

namespace ds::host {

// Whether whoever asks may see that name; what it may not see is left out, but for its number.
using NameFilter = std::function<bool(std::string_view name)>;

// Names with services, or with registrations, behind `dump.after()`.
void fill_names(const Directory &directory, const v1::Dump &dump, const NameFilter &is_allowed,
                v1::DumpReply &reply);

// Clients behind `dump.after_client()`, in no particular order.
void fill_clients(const Directory &directory, const SessionTable &sessions, const v1::Dump &dump,
                  const NameFilter &is_allowed, v1::DumpReply &reply);

} // namespace ds::host
