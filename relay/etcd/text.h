// Which texts from outside are fit for keys, for people and for the directory.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace ds::relay::etcd {

// Valid UTF-8 without control characters (U+0000 to U+001F, U+007F to U+009F).
bool is_printable(std::string_view text);

// One or more of [A-Za-z0-9._-], at most 64: what stands between two slashes of a key.
bool is_key_part(std::string_view text);

// The text for people: what is not printable as "\xNN", and cut where it is longer than that.
std::string shown(std::string_view text, std::size_t bytes_max);

} // namespace ds::relay::etcd
