#include "host/toml_screen.h"

namespace ds::host {

namespace {

constexpr char basic_quote = '"';
constexpr char literal_quote = '\'';

// Behind the comment that begins at `at`: its line's end.
std::size_t skip_comment(std::string_view text, std::size_t at) {
    const std::size_t end = text.find('\n', at);
    return end == text.npos ? text.size() : end;
}

// Behind the string that begins at `at`. One that does not end is a mistake of its line.
std::size_t skip_string(std::string_view text, std::size_t at) {
    const char quote = text[at];
    const std::string_view triple = text.substr(at, 3);
    const bool is_multi_line = triple.size() == 3 && triple[1] == quote && triple[2] == quote;
    const std::string_view end = is_multi_line ? triple : triple.substr(0, 1);
    at += end.size();
    while (at < text.size()) {
        if (text.substr(at, end.size()) == end) return at + end.size();
        if (text[at] == '\n' && !is_multi_line) return at;
        at += text[at] == '\\' && quote == basic_quote ? 2 : 1;
    }
    return text.size();
}

TextPlace place_of(std::string_view text, std::size_t at) {
    TextPlace place;
    for (const char byte : text.substr(0, at)) {
        place.column = byte == '\n' ? 1 : place.column + 1;
        place.line += byte == '\n' ? 1 : 0;
    }
    return place;
}

} // namespace

std::optional<TextPlace> find_foreign_byte(std::string_view toml) {
    constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
    std::size_t at = toml.starts_with(byte_order_mark) ? byte_order_mark.size() : 0;
    while (at < toml.size()) {
        const char byte = toml[at];
        if (static_cast<unsigned char>(byte) >= 0x80) return place_of(toml, at);
        if (byte == '#')
            at = skip_comment(toml, at);
        else if (byte == basic_quote || byte == literal_quote)
            at = skip_string(toml, at);
        else
            at++;
    }
    return std::nullopt;
}

} // namespace ds::host
