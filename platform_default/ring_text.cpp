// Makes the message of a trace record: the part of printf that trace formats use.
#include "platform_default/ring_reader.h"
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

namespace ds::ring {
namespace {

constexpr std::size_t width_max = 256;
constexpr std::string_view wrong_argument = "<?>";

struct Conversion {
    char letter = 0;
    bool is_long = false;
    bool is_left = false;
    bool is_zero_padded = false;
    std::size_t width = 0;
};

// Reads what follows a '%'; nothing when it is no conversion known here. Moves `at` behind it.
std::optional<Conversion> parse_conversion(std::string_view format, std::size_t &at) {
    Conversion conversion;
    std::size_t i = at;
    for (; i < format.size() && (format[i] == '0' || format[i] == '-'); i++)
        (format[i] == '0' ? conversion.is_zero_padded : conversion.is_left) = true;
    for (; i < format.size() && format[i] >= '0' && format[i] <= '9'; i++)
        conversion.width = std::min<std::size_t>(
            conversion.width * 10 + static_cast<std::size_t>(format[i] - '0'), width_max);
    for (; i < format.size() && format[i] == 'l'; i++)
        conversion.is_long = true;
    if (i == format.size() || std::string_view("sdiuxXp").find(format[i]) == std::string_view::npos)
        return std::nullopt;
    conversion.letter = format[i];
    if (conversion.letter == 'p') conversion.is_long = true;
    at = i + 1;
    return conversion;
}

std::string digits(std::uint64_t value, int base) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, base);
    return std::string(buffer, result.ptr);
}

std::string number_text(const Conversion &conversion, std::int64_t value) {
    const auto bits =
        conversion.is_long ? static_cast<std::uint64_t>(value) : static_cast<std::uint32_t>(value);
    std::string text;
    switch (conversion.letter) {
    case 'd':
    case 'i':
        return std::to_string(value);
    case 'u':
        return digits(bits, 10);
    case 'p':
        return bits == 0 ? "(nil)" : "0x" + digits(bits, 16);
    default:
        text = digits(bits, 16);
        if (conversion.letter == 'X')
            std::transform(text.begin(), text.end(), text.begin(),
                           [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
        return text;
    }
}

std::string padded(const Conversion &conversion, std::string text) {
    if (text.size() >= conversion.width) return text;
    const std::size_t missing = conversion.width - text.size();
    if (conversion.is_left) return text.append(missing, ' ');
    const bool is_number = conversion.letter != 's' && conversion.letter != 'p';
    if (!conversion.is_zero_padded || !is_number) return text.insert(0, missing, ' ');
    return text.insert(text.front() == '-' ? 1 : 0, missing, '0');
}

std::string argument_text(const Conversion &conversion, const Argument &argument) {
    if (conversion.letter == 's') {
        const auto *text = std::get_if<std::string>(&argument);
        return text == nullptr ? std::string(wrong_argument) : padded(conversion, *text);
    }
    std::int64_t value = 0;
    if (const auto *word = std::get_if<std::int64_t>(&argument); word && conversion.is_long)
        value = *word;
    else if (const auto *number = std::get_if<std::int32_t>(&argument);
             number && !conversion.is_long)
        value = *number;
    else
        return std::string(wrong_argument);
    return padded(conversion, number_text(conversion, value));
}

} // namespace

std::string text(const Record &record, std::string_view format) {
    std::string message;
    std::size_t used = 0;
    for (std::size_t at = 0; at < format.size();) {
        const char c = format[at++];
        if (c != '%') {
            message += c;
            continue;
        }
        if (at < format.size() && format[at] == '%') {
            message += '%';
            at++;
            continue;
        }
        const auto conversion = parse_conversion(format, at);
        if (!conversion)
            message += '%'; // not for us: it stays as it stands
        else if (used == record.arguments.size())
            message += wrong_argument;
        else
            message += argument_text(*conversion, record.arguments[used++]);
    }
    return message;
}

} // namespace ds::ring
