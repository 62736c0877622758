// dsctl list: one line per instance.
#include <fnmatch.h>
#include <memory>

#include "cli/context.h"
#include "cli/directory.h"
#include "cli/endpoint.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Lists every published instance, or those whose name matches a shell pattern.\n"
    "Ends with 3 when a pattern was given and nothing matches it.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl list\n"
                            "  dsctl list 'web-*' -o wide\n"
                            "  dsctl list -o json | jq '.[].endpoint'\n";

struct Found {
    Json json = Json::array();
    Table table;
    bool any = false;
    bool reconciling = false;
};

Table make_table(bool wide) {
    std::vector<std::string> titles = {"NAME", "INSTANCE", "SCOPE", "ENDPOINT",
                                       "HA",   "ISSU",     "NODE"};
    if (wide) titles.insert(titles.end(), {"ID", "GEN", "PID", "VERSION"});
    return Table(titles);
}

void add_row(Table &table, const v1::Snapshot &snapshot, const v1::Instance &instance, bool wide) {
    std::vector<std::string> cells = {snapshot.name(),
                                      instance.instance(),
                                      scope_text(instance.scope()),
                                      endpoint_text(instance.endpoint()),
                                      ha_text(instance.ha_role()),
                                      issu_cell(instance),
                                      wide ? node_text(instance.node()) : node_cell(instance)};
    if (wide) {
        cells.insert(cells.end(),
                     {id_text(instance.service_id()), std::to_string(instance.generation()),
                      std::to_string(instance.pid()), std::to_string(snapshot.version())});
    }
    table.add(cells);
}

void add_name(Found &found, const v1::Snapshot &snapshot, const Context &context) {
    found.reconciling |= snapshot.reconciling();
    for (const v1::Instance &instance : snapshot.instances()) {
        found.any = true;
        if (!context.is_json()) {
            add_row(found.table, snapshot, instance, context.is_wide());
            continue;
        }
        Json json = instance_json(snapshot.name(), instance);
        json["version"] = snapshot.version();
        // An object per line is written as it comes, so that a long list needs no room here.
        if (context.format == Format::jsonl) print(json_line(json));
        if (context.format == Format::json) found.json.push_back(std::move(json));
    }
}

int list(const Context &context, const std::string &pattern) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    Found found{Json::array(), make_table(context.is_wide())};
    const client::Outcome outcome = list_names(daemon, "", [&](const v1::Snapshot &snapshot) {
        const bool wanted =
            pattern.empty() || ::fnmatch(pattern.c_str(), snapshot.name().c_str(), 0) == 0;
        if (wanted) add_name(found, snapshot, context);
    });
    if (!outcome.ok()) return fail("cannot list", outcome);
    if (context.format == Format::json) print(json_document(found.json));
    if (!context.is_json()) print(found.table.render(context.color()));
    if (found.reconciling) note_reconciling();
    if (found.any || pattern.empty()) return exit_ok;
    complain("nothing that is published matches '" + pattern + "'");
    return exit_not_found;
}

} // namespace

Action prepare_list(CLI::App &options) {
    auto pattern = std::make_shared<std::string>();
    options.description(description);
    options.footer(examples);
    options.add_option("PATTERN", *pattern, "Shell pattern for the name (quote it)")->type_name("");
    return [pattern](const Context &context) { return list(context, *pattern); };
}

} // namespace ds::cli
