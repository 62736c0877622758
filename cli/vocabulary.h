// The words for scopes, roles and nodes.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ds.pb.h"

namespace ds::cli {

// What options accept, in any case.
const std::map<std::string, v1::Scope> &scope_words();
const std::map<std::string, v1::HaRole> &ha_words();
const std::map<std::string, v1::IssuRole> &issu_words();

// Upper-case words; empty for none, the number for a value this program does not know.
std::string scope_text(v1::Scope scope);
std::string ha_text(v1::HaRole role);
std::string issu_text(v1::IssuRole role);
// "up", "down" or "unknown".
std::string node_state_text(v1::NodeState state);
// Role and id in one cell: "PRIMARY", "PRIMARY/7", "/7"; empty for neither.
std::string issu_cell(const v1::Instance &instance);

// "02:00:00:00:00:01"; empty when there is no address.
std::string node_text(std::string_view address);
// The same, but "local" for this node.
std::string node_cell(const v1::Instance &instance);

// Reads what node_text() writes; nothing when it is no address. Not empty.
std::optional<std::string> parse_node(std::string_view text);

// The name of a user of this machine; empty when there is none with that number.
std::string user_name(std::uint32_t uid);

// "0x1a".
std::string id_text(std::uint32_t service_id);

// "NAME" or "NAME/INSTANCE", each escaped as a cell.
std::string full_name(std::string_view name, std::string_view instance);

} // namespace ds::cli
