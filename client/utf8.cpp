#include "client/utf8.h"

namespace ds::client {
namespace {

struct Lead {
    std::size_t bytes;
    char32_t bits;
    char32_t smallest; // what needs this many bytes
};

Lead lead_of(unsigned char byte) {
    if (byte < 0x80) return {1, byte, 0};
    if ((byte & 0xe0) == 0xc0) return {2, byte & 0x1fu, 0x80};
    if ((byte & 0xf0) == 0xe0) return {3, byte & 0x0fu, 0x800};
    if ((byte & 0xf8) == 0xf0) return {4, byte & 0x07u, 0x10000};
    return {0, 0, 0};
}

} // namespace

CodePoint first_code_point(std::string_view text) {
    const Lead lead = lead_of(static_cast<unsigned char>(text[0]));
    if (lead.bytes == 0 || lead.bytes > text.size()) return {};
    char32_t value = lead.bits;
    for (std::size_t i = 1; i < lead.bytes; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80) return {};
        value = value << 6 | (byte & 0x3fu);
    }
    const bool surrogate = value >= 0xd800 && value <= 0xdfff;
    if (value < lead.smallest || value > 0x10ffff || surrogate) return {};
    return {value, lead.bytes};
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const CodePoint point = first_code_point(text);
        if (point.bytes == 0) return false;
        text.remove_prefix(point.bytes);
    }
    return true;
}

} // namespace ds::client
