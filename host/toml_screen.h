// Looks for what the TOML parser must not be given.
#pragma once
#include <cstddef>
#include <optional>
#include <string_view>

namespace ds::host {

struct TextPlace {
    std::size_t line = 1; // both from 1, columns in bytes
    std::size_t column = 1;
    bool operator==(const TextPlace &) const = default;
};

// The first byte beyond ASCII that stands neither in a string nor in a comment, where TOML allows
// none. The parser takes some of these characters for impossible and behaves as if undefined. What
// follows the first mistake in a text is judged in any way.
std::optional<TextPlace> find_foreign_byte(std::string_view toml);

} // namespace ds::host
