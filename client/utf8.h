// Reading UTF-8 that somebody else wrote.
#pragma once
#include <cstddef>
#include <string_view>

namespace ds::client {

struct CodePoint {
    char32_t value = 0;
    std::size_t bytes = 0; // 0: no well-formed sequence starts there
};

// The code point at the start of `text`, which is not empty. Overlong forms, surrogates and values
// behind U+10FFFF are not well-formed.
CodePoint first_code_point(std::string_view text);

bool is_utf8(std::string_view text);

} // namespace ds::client
