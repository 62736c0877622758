#include "cli/trace_explanations.h"

#include "cli/context.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/trace_filter.h"

namespace ds::cli {
namespace {

constexpr std::size_t text_columns = 80;
constexpr const char *channel_names[] = {"pub", "reg", "err", "notif", "main", "that of its event"};

std::string channel_of(const ds_log::point &point) {
    return channel_names[static_cast<std::size_t>(point.channel)];
}

std::string message_of(const ds_log::point &point) {
    std::string message = point.format;
    if (message.ends_with('\n')) message.pop_back();
    return message;
}

bool is_wanted(const ds_log::point &point, const std::string &wanted) {
    return wanted == std::to_string(point.number) || tag_matches(wanted, point.tag);
}

// Breaks the text at blanks and sets it in by two columns.
std::string paragraph(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        std::size_t end = text.size();
        if (end > text_columns - 2) {
            end = text.rfind(' ', text_columns - 2);
            if (end == text.npos) end = text.find(' ');
            if (end == text.npos) end = text.size();
        }
        out.append("  ").append(text.substr(0, end)).append(1, '\n');
        text.remove_prefix(end);
        if (!text.empty()) text.remove_prefix(1);
    }
    return out;
}

std::string text_of(const ds_log::point &point, bool color) {
    const Explanation &explanation = explanations[point.number];
    return paint(point.tag, Color::header, color) + "  number " + std::to_string(point.number) +
           ", channel " + channel_of(point) + "\n  " + one_line(message_of(point)) + '\n' +
           paragraph(explanation.happened) + paragraph(std::string("To do: ") + explanation.advice);
}

Json json_of(const ds_log::point &point) {
    const Explanation &explanation = explanations[point.number];
    Json json;
    json["id"] = point.number;
    json["tag"] = point.tag;
    json["channel"] =
        point.channel == ds_log::channel::any ? Json(nullptr) : Json(channel_of(point));
    json["message"] = message_of(point);
    json["happened"] = explanation.happened;
    json["advice"] = explanation.advice;
    return json;
}

} // namespace

int explain(const Context &context, const std::string &wanted) {
    Json array = Json::array();
    std::string text;
    for (const ds_log::point &point : ds_log::points) {
        if (!is_wanted(point, wanted)) continue;
        array.push_back(json_of(point));
        text += (text.empty() ? "" : "\n") + text_of(point, context.color());
    }
    if (array.empty()) {
        complain("there is no log point '" + wanted + "'; docs/log_points.md lists all of them");
        return exit_not_found;
    }
    if (context.format == Format::json) print(json_document(array));
    if (context.format == Format::jsonl) {
        for (const Json &point : array)
            print(json_line(point));
    }
    if (!context.is_json()) print(text);
    return exit_ok;
}

} // namespace ds::cli
