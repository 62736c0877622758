#include "cli/change_text.h"

#include <algorithm>

#include "cli/endpoint.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

// The reason comes behind these, as it has blanks of its own.
constexpr const char *titles[] = {"TIME", "VERSION", "NAME", "INSTANCE", "ENDPOINT", "HA",
                                  "ISSU", "SCOPE",   "NODE", "ID",       "GEN",      "PID"};
constexpr std::size_t usual_widths[] = {12, 7, 4, 8, 21, 7, 9, 6, 5, 10, 3, 7};
constexpr std::size_t name_column = 2;
constexpr std::size_t node_column = 8;
constexpr std::size_t node_address_columns = 17;
constexpr std::size_t narrow_columns = 9;

char mark_of(ChangeKind kind) {
    switch (kind) {
    case ChangeKind::appeared:
        return '+';
    case ChangeKind::changed:
        return '~';
    case ChangeKind::gone:
        return '-';
    case ChangeKind::present:
        break;
    }
    return '=';
}

Color color_of(ChangeKind kind) {
    switch (kind) {
    case ChangeKind::appeared:
        return Color::good;
    case ChangeKind::changed:
        return Color::changed;
    case ChangeKind::gone:
        return Color::bad;
    case ChangeKind::present:
        break;
    }
    return Color::none;
}

Json event_json(const char *event, const v1::Snapshot &snapshot, std::uint64_t wall_ns) {
    Json json;
    json["event"] = event;
    json["time"] = iso_text(wall_ns);
    json["version"] = snapshot.version();
    json["reconciling"] = snapshot.reconciling();
    return json;
}

} // namespace

const char *kind_word(ChangeKind kind) {
    switch (kind) {
    case ChangeKind::appeared:
        return "appeared";
    case ChangeKind::changed:
        return "changed";
    case ChangeKind::gone:
        return "gone";
    case ChangeKind::present:
        break;
    }
    return "present";
}

ChangeLines::ChangeLines(const Context &context, const std::vector<std::string> &names)
    : json_(context.is_json()), wide_(context.is_wide()), color_(context.color()) {
    widths_.assign(std::begin(usual_widths), std::end(usual_widths));
    if (wide_) widths_[node_column] = node_address_columns;
    for (const std::string &name : names) {
        widths_[name_column] = std::max(widths_[name_column], width(cell(name)));
    }
}

// Pads safe cells; the last column is followed by two blanks as well, for what the caller appends.
std::string ChangeLines::columns(const std::vector<std::string> &cells) const {
    std::string out;
    for (std::size_t i = 0; i < cells.size(); i++) {
        out += pad(cells[i], widths_[i]);
        out += "  ";
    }
    return out;
}

std::string ChangeLines::header() const {
    if (json_) return {};
    std::vector<std::string> cells(std::begin(titles), std::end(titles));
    if (!wide_) cells.resize(narrow_columns);
    return paint("  " + columns(cells) + "REASON", Color::header, color_) + '\n';
}

std::string ChangeLines::line(const v1::Snapshot &snapshot, const Change &change,
                              std::uint64_t wall_ns) const {
    const v1::Instance &instance = change.instance;
    if (json_) {
        Json json = event_json(kind_word(change.kind), snapshot, wall_ns);
        json.update(instance_json(snapshot.name(), instance));
        json["reason"] = change.reason;
        return json_line(json);
    }
    std::vector<std::string> cells = {
        clock_text(wall_ns),
        'v' + std::to_string(snapshot.version()),
        cell(snapshot.name()),
        cell(instance.instance()),
        cell(endpoint_text(instance.endpoint())),
        cell(ha_text(instance.ha_role())),
        cell(issu_cell(instance)),
        cell(scope_text(instance.scope())),
        cell(wide_ ? node_text(instance.node()) : node_cell(instance)),
        id_text(instance.service_id()),
        std::to_string(instance.generation()),
        std::to_string(instance.pid())};
    if (!wide_) cells.resize(narrow_columns);
    const std::string text =
        std::string(1, mark_of(change.kind)) + ' ' + columns(cells) + one_line(change.reason);
    return paint(text, color_of(change.kind), color_) + '\n';
}

std::string ChangeLines::nothing(const v1::Snapshot &snapshot, std::uint64_t wall_ns) const {
    if (json_) {
        Json json = event_json("empty", snapshot, wall_ns);
        json["name"] = snapshot.name();
        return json_line(json);
    }
    const std::vector<std::string> cells = {
        clock_text(wall_ns), 'v' + std::to_string(snapshot.version()), cell(snapshot.name())};
    return paint("= " + columns(cells) + "nothing is published", Color::faint, color_) + '\n';
}

std::vector<std::pair<std::string, std::string>> change_environment(const v1::Snapshot &snapshot,
                                                                    const Change &change) {
    const v1::Instance &instance = change.instance;
    return {{"DS_EVENT", kind_word(change.kind)},
            {"DS_NAME", snapshot.name()},
            {"DS_VERSION", std::to_string(snapshot.version())},
            {"DS_INSTANCE", instance.instance()},
            {"DS_ENDPOINT", endpoint_text(instance.endpoint())},
            {"DS_HA_ROLE", ha_text(instance.ha_role())},
            {"DS_ISSU_ROLE", issu_text(instance.issu_role())},
            {"DS_ISSU_ID", std::to_string(instance.issu_id())},
            {"DS_SCOPE", scope_text(instance.scope())},
            {"DS_NODE", node_text(instance.node())},
            {"DS_LOCAL", instance.local() ? "1" : "0"},
            {"DS_ID", id_text(instance.service_id())},
            {"DS_GENERATION", std::to_string(instance.generation())},
            {"DS_PID", std::to_string(instance.pid())},
            {"DS_REASON", change.reason}};
}

} // namespace ds::cli
