#include "cli/trace_line.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "cli/output.h"

namespace ds::cli {
namespace {

constexpr std::size_t longest_tag() {
    std::size_t longest = 0;
    for (const ds_log::point &point : ds_log::points)
        longest = std::max(longest, ds_log::length(point.tag));
    return longest;
}

constexpr std::size_t short_time_columns = 18; // "11/21 19:10:07.123"
constexpr std::size_t long_time_columns = 29;  // "2026-11-21 19:10:07.123456789"
constexpr std::size_t channel_columns = 7;
constexpr std::size_t tag_columns = longest_tag() + 2;
constexpr std::size_t id_columns = 3;
constexpr std::size_t pid_columns = 7;
constexpr std::size_t thread_columns = 15;
constexpr std::size_t sequence_columns = 10;

std::string long_local_text(std::uint64_t wall_ns) {
    std::string text = local_text(wall_ns);
    text[text.find('T')] = ' ';
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%09" PRIu64, wall_ns % 1'000'000'000);
    return text + fraction;
}

std::string right(std::string text, std::size_t columns) {
    if (text.size() < columns) text.insert(0, columns - text.size(), ' ');
    return text;
}

std::string right(std::uint64_t number, std::size_t columns) {
    return right(std::to_string(number), columns);
}

// The letter of each conversion in a format: s, d, u, x or p.
std::string conversions_of(const char *format) {
    std::string letters;
    for (std::size_t at = 0; format[at] != '\0'; at++) {
        if (format[at] != '%') continue;
        if (format[++at] == '%') continue;
        ds_log::conversion(format, at);
        letters += format[at];
    }
    return letters;
}

// A number is as signed as the message shows it: a service's id reads here as it does in `list`.
Json argument_json(const ring::Argument &argument, char conversion) {
    const bool is_signed = conversion == 'd';
    Json json;
    if (const auto *text = std::get_if<std::string>(&argument)) {
        json["type"] = "s";
        json["value"] = *text;
    } else if (const auto *wide = std::get_if<std::int64_t>(&argument)) {
        json["type"] = "D";
        json["value"] = is_signed ? Json(*wide) : Json(static_cast<std::uint64_t>(*wide));
    } else {
        const std::int32_t word = std::get<std::int32_t>(argument);
        json["type"] = "d";
        json["value"] = is_signed ? Json(word) : Json(static_cast<std::uint32_t>(word));
    }
    return json;
}

} // namespace

const ds_log::point *TraceLine::point() const {
    return record.point < ds_log::point_count ? &ds_log::points[record.point] : nullptr;
}

std::string TraceLine::tag() const {
    return point() == nullptr ? '#' + std::to_string(record.point) : point()->tag;
}

std::string TraceLine::text() const {
    if (point() == nullptr) return "(no log point has that number)";
    const std::string_view format = point()->format;
    std::string text = ring::text(record, format);
    if (format.ends_with('\n')) text.pop_back();
    return text;
}

std::string trace_header(const Context &context) {
    const bool wide = context.is_wide();
    std::string line = pad("TIME", wide ? long_time_columns : short_time_columns);
    line += ' ' + pad("CHANNEL", channel_columns) + ' ';
    if (wide) line += right("ID", id_columns) + ' ';
    line += pad("TAG", tag_columns) + ' ';
    if (wide)
        line += right("PID", pid_columns) + ' ' + right("THREAD", thread_columns) + ' ' +
                right("SEQUENCE", sequence_columns) + ' ';
    return paint(line + "MESSAGE", Color::header, context.color()) + '\n';
}

std::string trace_text(const Context &context, const TraceLine &line) {
    const bool color = context.color(), wide = context.is_wide();
    const std::string time = wide ? long_local_text(line.wall_ns) : date_clock_text(line.wall_ns);
    std::string rest = pad(escape(line.channel), channel_columns) + ' ';
    if (wide) rest += right(line.record.point, id_columns) + ' ';
    rest += pad('[' + line.tag() + ']', tag_columns) + ' ';
    if (wide)
        rest += right(line.pid, pid_columns) + ' ' + right(line.record.thread, thread_columns) +
                ' ' + right(line.record.sequence, sequence_columns) + ' ';
    rest += one_line(line.text());
    return paint(time, Color::faint, color) + ' ' +
           paint(rest, line.channel == "err" ? Color::bad : Color::none, color) + '\n';
}

Json trace_json(const TraceLine &line) {
    Json json;
    json["time"] = rfc3339_text(line.wall_ns);
    json["stamp_ns"] = line.record.stamp_ns;
    json["channel"] = line.channel;
    json["sequence"] = line.record.sequence;
    json["id"] = line.record.point;
    json["tag"] = line.tag();
    json["pid"] = line.pid;
    json["thread"] = line.record.thread;
    const std::string conversions =
        line.point() == nullptr ? "" : conversions_of(line.point()->format);
    json["args"] = Json::array();
    for (std::size_t i = 0; i < line.record.arguments.size(); i++) {
        const char conversion = i < conversions.size() ? conversions[i] : 'd';
        json["args"].push_back(argument_json(line.record.arguments[i], conversion));
    }
    json["truncated"] = line.record.truncated;
    json["text"] = line.text();
    return json;
}

std::string trace_notice(const Context &context, const char *kind, const std::string &sentence,
                         const Json &rest) {
    if (!context.is_json())
        return paint("-- " + one_line(sentence), Color::changed, context.color()) + '\n';
    Json json;
    json["notice"] = kind;
    json.update(rest);
    return json_line(json);
}

} // namespace ds::cli
