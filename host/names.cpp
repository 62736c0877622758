#include "host/names.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "proto/frame.h"

namespace ds::host {

const TextRule service_name_rule = {"name", 1, proto::name_bytes_max, false};
const TextRule instance_rule = {"instance", 0, proto::instance_bytes_max, false};
const TextRule path_rule = {"endpoint.path", 1, proto::path_bytes_max, true};
const TextRule display_name_rule = {"display_name", 0, 255, true};

namespace {

constexpr std::uint32_t malformed = 0xffffffff;

// Reads one character and moves `at` behind it.
std::uint32_t next_character(std::string_view text, std::size_t &at) {
    const auto byte = [&text](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(text[i]));
    };
    const std::uint32_t first = byte(at++);
    if (first < 0x80) return first;

    std::size_t more = 0; // continuation bytes
    std::uint32_t smallest = 0;
    if (first >= 0xc2 && first <= 0xdf)
        more = 1, smallest = 0x80;
    else if (first >= 0xe0 && first <= 0xef)
        more = 2, smallest = 0x800;
    else if (first >= 0xf0 && first <= 0xf4)
        more = 3, smallest = 0x10000;
    else
        return malformed;
    if (text.size() - at < more) return malformed;

    std::uint32_t character = first & (0x3fu >> more);
    for (; more > 0; more--, at++) {
        if ((byte(at) & 0xc0) != 0x80) return malformed;
        character = character << 6 | (byte(at) & 0x3f);
    }
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    return character < smallest || character > 0x10ffff || surrogate ? malformed : character;
}

// ASCII that every rule allows; most names hold nothing else.
bool is_plain(char c) {
    return c >= 0x20 && c < 0x7f && c != instance_end;
}

bool is_control(std::uint32_t character) {
    return character < 0x20 || (character >= 0x7f && character <= 0x9f);
}

std::string wrong_length(const TextRule &rule, std::string_view text) {
    const std::string problem =
        text.empty() ? " is empty; " : " has " + std::to_string(text.size()) + " bytes; ";
    return rule.field + problem + std::to_string(rule.bytes_min) + " to " +
           std::to_string(rule.bytes_max) + " bytes are allowed.";
}

std::string wrong_character(const TextRule &rule, std::uint32_t character, std::size_t at) {
    const std::string field = rule.field;
    const std::string where = " at byte " + std::to_string(at);
    if (character == malformed)
        return field + " is not valid UTF-8" + where + "; only UTF-8 text is allowed.";
    if (character == instance_end)
        return field + " holds ';'" + where + "; every other printable character is allowed.";
    char code[16];
    std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(character));
    return field + " holds the control character " + code + where +
           "; only printable characters are allowed.";
}

} // namespace

std::string check_text(const TextRule &rule, std::string_view text) {
    if (text.size() < rule.bytes_min || text.size() > rule.bytes_max)
        return wrong_length(rule, text);
    if (std::ranges::all_of(text, is_plain)) return {};
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t start = at;
        const std::uint32_t character = next_character(text, at);
        const bool refused = character == malformed || is_control(character) ||
                             (character == instance_end && !rule.semicolon_allowed);
        if (refused) return wrong_character(rule, character, start);
    }
    return {};
}

std::string to_directory_instance(std::string_view instance) {
    std::string text;
    text.reserve(instance.size() + 1);
    return text.append(instance).append(1, instance_end);
}

std::string_view to_client_instance(const char *directory_instance) {
    if (directory_instance == nullptr) return {};
    std::string_view text = directory_instance;
    if (text.ends_with(instance_end)) text.remove_suffix(1);
    return text;
}

} // namespace ds::host
