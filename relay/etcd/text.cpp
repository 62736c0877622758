#include "relay/etcd/text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace ds::relay::etcd {

namespace {

constexpr std::size_t key_part_bytes_max = 64;

// The number of bytes of the character that begins with this byte; 0 when none does.
std::size_t length_of(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xc2 && first <= 0xdf) return 2;
    if (first >= 0xe0 && first <= 0xef) return 3;
    if (first >= 0xf0 && first <= 0xf4) return 4;
    return 0;
}

bool is_allowed(std::uint32_t character, std::size_t length) {
    constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (character < smallest[length] || character > 0x10ffff) return false;
    if (character >= 0xd800 && character <= 0xdfff) return false;
    return character >= 0x20 && (character < 0x7f || character > 0x9f);
}

} // namespace

bool is_printable(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const auto first = static_cast<unsigned char>(text[at]);
        const std::size_t length = length_of(first);
        if (length == 0 || text.size() - at < length) return false;
        std::uint32_t character = length == 1 ? first : first & (0x7fu >> length);
        for (std::size_t i = 1; i < length; i++) {
            const auto byte = static_cast<unsigned char>(text[at + i]);
            if ((byte & 0xc0) != 0x80) return false;
            character = character << 6 | (byte & 0x3fu);
        }
        if (!is_allowed(character, length)) return false;
        at += length;
    }
    return true;
}

std::string shown(std::string_view text, std::size_t bytes_max) {
    const bool is_cut = text.size() > bytes_max;
    text = text.substr(0, bytes_max);
    std::string result;
    if (is_printable(text)) {
        result = text;
    } else {
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            char code[5];
            std::snprintf(code, sizeof code, "\\x%02x", byte);
            result += byte >= 0x20 && byte < 0x7f ? std::string(1, c) : std::string(code);
        }
    }
    return is_cut ? result + "..." : result;
}

bool is_key_part(std::string_view text) {
    return !text.empty() && text.size() <= key_part_bytes_max &&
           std::ranges::all_of(text, [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                      c == '.' || c == '_' || c == '-';
           });
}

} // namespace ds::relay::etcd
