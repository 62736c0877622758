#include "cli/output.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <ctime>
#include <cwchar>
#include <locale.h>

#include "cli/utf8.h"

namespace ds::cli {
namespace {

// Printable by the character tables, yet invisible, or able to reorder what stands beside them.
constexpr std::array<std::pair<char32_t, char32_t>, 8> treacherous = {{{0x00ad, 0x00ad},
                                                                       {0x061c, 0x061c},
                                                                       {0x180e, 0x180e},
                                                                       {0x200b, 0x200f},
                                                                       {0x2028, 0x202f},
                                                                       {0x2060, 0x206f},
                                                                       {0xfeff, 0xfeff},
                                                                       {0xe0000, 0xe0fff}}};

// Widths are asked from the UTF-8 tables whatever the user's locale is: names are UTF-8 everywhere.
int columns_of(char32_t point) {
    if (point < 0x20 || point == 0x7f) return -1;
    if (point < 0x7f) return 1;
    static const locale_t tables = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (tables == nullptr) return -1;
    const locale_t before = ::uselocale(tables);
    const int columns = ::wcwidth(static_cast<wchar_t>(point));
    ::uselocale(before);
    return columns;
}

bool is_safe(char32_t point) {
    for (const auto &[first, last] : treacherous) {
        if (point >= first && point <= last) return false;
    }
    return columns_of(point) >= 0;
}

template <class... Values> std::string format(const char *pattern, Values... values) {
    char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int bytes = std::snprintf(text, sizeof text, pattern, values...);
#pragma GCC diagnostic pop
    return {text, static_cast<std::size_t>(std::clamp<int>(bytes, 0, sizeof text - 1))};
}

void append_escaped_byte(std::string &out, unsigned char byte) {
    switch (byte) {
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    default:
        out += format("\\x%02x", static_cast<unsigned>(byte));
    }
}

std::string escape_with(std::string_view text, std::string_view also) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const CodePoint point = first_code_point(text);
        const std::size_t bytes = std::max<std::size_t>(point.bytes, 1);
        const auto first = static_cast<unsigned char>(text[0]);
        if (point.bytes == 0 || first < 0x20 || first == 0x7f) {
            append_escaped_byte(out, first);
        } else if (first < 0x80) {
            if (also.find(text[0]) != also.npos) out += '\\';
            out += text[0];
        } else if (is_safe(point.value)) {
            out += text.substr(0, bytes);
        } else {
            out += format("\\u{%x}", static_cast<unsigned>(point.value));
        }
        text.remove_prefix(bytes);
    }
    return out;
}

const char *code_of(Color color) {
    switch (color) {
    case Color::header:
        return "\033[1m";
    case Color::good:
        return "\033[32m";
    case Color::changed:
        return "\033[33m";
    case Color::bad:
        return "\033[31m";
    case Color::faint:
        return "\033[2m";
    case Color::none:
        break;
    }
    return "";
}

std::tm local_time(std::uint64_t wall_ns) {
    const auto seconds = static_cast<std::time_t>(wall_ns / 1'000'000'000);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    return parts;
}

std::tm utc_time(std::uint64_t wall_ns) {
    const auto seconds = static_cast<std::time_t>(wall_ns / 1'000'000'000);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    return parts;
}

std::string day_and_second(const std::tm &at) {
    return format("%04d-%02d-%02dT%02d:%02d:%02d", at.tm_year + 1900, at.tm_mon + 1, at.tm_mday,
                  at.tm_hour, at.tm_min, at.tm_sec);
}

unsigned ms_of(std::uint64_t wall_ns) {
    return static_cast<unsigned>(wall_ns / 1'000'000 % 1000);
}

} // namespace

std::string paint(std::string_view text, Color color, bool enabled) {
    if (!enabled || color == Color::none) return std::string(text);
    return code_of(color) + std::string(text) + "\033[0m";
}

std::string escape(std::string_view text) {
    return escape_with(text, "\\");
}

std::string one_line(std::string_view text) {
    return escape_with(text, "");
}

std::string cell(std::string_view text) {
    if (text.empty()) return "-";
    const bool quoted = text == "-" || text.find_first_of(" \"") != text.npos;
    if (!quoted) return escape(text);
    return '"' + escape_with(text, "\\\"") + '"';
}

std::size_t width(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const CodePoint point = first_code_point(text);
        const int own = point.bytes == 0 ? 1 : columns_of(point.value);
        columns += static_cast<std::size_t>(std::max(own, 0));
        text.remove_prefix(std::max<std::size_t>(point.bytes, 1));
    }
    return columns;
}

std::string pad(std::string_view text, std::size_t columns) {
    std::string out(text);
    const std::size_t own = width(text);
    if (own < columns) out.append(columns - own, ' ');
    return out;
}

void Table::add(const std::vector<std::string> &cells) {
    std::vector<std::string> row(titles_.size());
    for (std::size_t i = 0; i < row.size(); i++)
        row[i] = cell(i < cells.size() ? cells[i] : "");
    rows_.push_back(std::move(row));
}

namespace {

std::string join(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths) {
    std::string out;
    for (std::size_t i = 0; i < cells.size(); i++) {
        const bool is_last = i + 1 == cells.size();
        out += is_last ? cells[i] : pad(cells[i], widths[i] + 2);
    }
    return out;
}

} // namespace

Table::Widths Table::widths() const {
    Widths widths = widths_before_;
    widths.resize(titles_.size());
    const auto widen = [&widths](const Row &row) {
        for (std::size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], width(row[i]));
    };
    widen(titles_);
    for (const Row &row : rows_)
        widen(row);
    return widths;
}

std::string Table::header(const Widths &widths, bool color) const {
    return paint(join(titles_, widths), Color::header, color) + '\n';
}

std::string Table::body(const Widths &widths) const {
    std::string out;
    for (const Row &row : rows_)
        out += join(row, widths) + '\n';
    return out;
}

std::string Table::render(bool color) const {
    const Widths all = widths();
    return header(all, color) + body(all);
}

std::string Table::take_page(bool color) {
    const bool is_first = widths_before_.empty();
    widths_before_ = widths();
    std::string out = is_first ? header(widths_before_, color) : "";
    out += body(widths_before_);
    rows_.clear();
    return out;
}

std::string fields_text(const Fields &fields, bool color) {
    std::size_t columns = 0;
    for (const auto &[label, value] : fields)
        columns = std::max(columns, width(label) + 2);
    std::string text = paint(pad("FIELD", columns) + "VALUE", Color::header, color) + '\n';
    for (const auto &[label, value] : fields)
        text += pad(label, columns) + (value.empty() ? "-" : one_line(value)) + '\n';
    return text;
}

std::string bytes_text(std::uint64_t bytes) {
    static constexpr const char *units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(units)) {
        value /= 1024;
        unit++;
    }
    return format("%.1f %s", value, units[unit]);
}

std::string duration_text(std::uint64_t ms) {
    const std::uint64_t seconds = ms / 1000;
    const auto part = [](std::uint64_t value) { return static_cast<unsigned long>(value); };
    if (seconds < 60) return format("%lu.%03lus", part(seconds), part(ms % 1000));
    const unsigned long days = part(seconds / 86400), hours = part(seconds / 3600 % 24);
    const unsigned long minutes = part(seconds / 60 % 60), rest = part(seconds % 60);
    if (days > 0) return format("%lud %02luh %02lum %02lus", days, hours, minutes, rest);
    if (hours > 0) return format("%luh %02lum %02lus", hours, minutes, rest);
    return format("%lum %02lus", minutes, rest);
}

std::string clock_text(std::uint64_t wall_ns) {
    const std::tm at = local_time(wall_ns);
    return format("%02d:%02d:%02d.%03u", at.tm_hour, at.tm_min, at.tm_sec, ms_of(wall_ns));
}

std::string date_clock_text(std::uint64_t wall_ns) {
    const std::tm at = local_time(wall_ns);
    return format("%02d/%02d ", at.tm_mon + 1, at.tm_mday) + clock_text(wall_ns);
}

std::string iso_text(std::uint64_t wall_ns) {
    return day_and_second(utc_time(wall_ns)) + format(".%03uZ", ms_of(wall_ns));
}

std::string rfc3339_text(std::uint64_t wall_ns) {
    const auto ns = static_cast<unsigned>(wall_ns % 1'000'000'000);
    return day_and_second(utc_time(wall_ns)) + format(".%09uZ", ns);
}

std::string local_text(std::uint64_t wall_ns) {
    return day_and_second(local_time(wall_ns));
}

std::uint64_t age_ns(std::uint64_t wall_ns, std::uint64_t now_ns) {
    return now_ns - std::min(wall_ns, now_ns);
}

std::string age_text(std::uint64_t age_ns) {
    const auto ms = static_cast<unsigned long>(age_ns / 1'000'000);
    const unsigned long seconds = ms / 1000, minutes = seconds / 60, hours = minutes / 60;
    if (seconds == 0) return format("%lums", ms);
    if (minutes == 0) return format("%lus", seconds);
    if (hours == 0) return format("%lum%lus", minutes, seconds % 60);
    if (hours < 24) return format("%luh%lum", hours, minutes % 60);
    return format("%lud%luh", hours / 24, hours % 24);
}

std::uint64_t wall_now_ns() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace ds::cli
