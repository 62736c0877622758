// Pages of names with their live instances.
#pragma once
#include <functional>
#include <string>
#include <string_view>

#include "ds.pb.h"
#include "host/directory.h"

namespace ds::host {

// A page ends before this size, except that one name is always told whole.
inline constexpr std::size_t page_bytes_max = 262'144;

// Appends the encoded ListReply of the names behind list.after(), in the directory's order: shorter
// names first, then by bytes. Names that nobody publishes and those that are not allowed are left
// out. `after` need not exist any more.
using IsAllowed = std::function<bool(std::string_view name)>;
void encode_page(const Directory &directory, const v1::List &list, const IsAllowed &is_allowed,
                 std::string &out);

// Appends the encoded ListReply of the one name; false, and nothing appended, when nobody publishes
// it.
bool encode_name(const Directory &directory, const std::string &name, std::string &out);

} // namespace ds::host
