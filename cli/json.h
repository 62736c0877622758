// JSON for scripts. Keys and their order are part of the interface: add, never rename.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "ds.pb.h"

// Instantiated once, in json.cpp, for it is a lot of code.
extern template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace ds::cli {

using Json = nlohmann::ordered_json;

// One line. Bytes that are not UTF-8 become U+FFFD.
std::string json_line(const Json &value);
// Indented, with a newline at the end.
std::string json_document(const Json &value);

// Null for an empty text.
Json text_or_null(std::string text);
// "KEY" in UTC and "KEY_age_ns"; both null for 0.
void put_time(Json &json, const std::string &key, std::uint64_t wall_ns, std::uint64_t now_ns);

// One instance; roles that are not set are null.
Json instance_json(std::string_view name, const v1::Instance &instance);
// A name with all its instances.
Json snapshot_json(const v1::Snapshot &snapshot);
// "relay_status" is null without a relay.
Json status_json(const v1::StatusReply &status, std::uint64_t now_ns);

} // namespace ds::cli
