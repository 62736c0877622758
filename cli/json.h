// JSON for scripts. Keys and their order are part of the interface: add, never rename.
#pragma once
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "ds.pb.h"

namespace ds::cli {

using Json = nlohmann::ordered_json;

// One line. Bytes that are not UTF-8 become U+FFFD.
std::string json_line(const Json &value);
// Indented, with a newline at the end.
std::string json_document(const Json &value);

// One instance; roles that are not set are null.
Json instance_json(std::string_view name, const v1::Instance &instance);
// A name with all its instances.
Json snapshot_json(const v1::Snapshot &snapshot);
Json status_json(const v1::StatusReply &status);

} // namespace ds::cli
