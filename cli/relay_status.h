// How the relay is, for people and for programs.
#pragma once
#include <cstdint>

#include "cli/json.h"
#include "cli/output.h"
#include "ds.pb.h"

namespace ds::cli {

Fields relay_fields(const v1::RelayStatus &relay, std::uint64_t now_ns);
Json relay_json(const v1::RelayStatus &relay, std::uint64_t now_ns);

} // namespace ds::cli
