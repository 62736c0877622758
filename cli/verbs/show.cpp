// dsctl show: everything about one name.
#include <memory>

#include "cli/context.h"
#include "cli/directory.h"
#include "cli/endpoint.h"
#include "cli/help.h"
#include "cli/output.h"
#include "cli/records.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr char description[] = "Shows all instances of one name with everything known about them.\n"
                               "Ends with 3 when no instance of that name is published.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl show web\n"
                            "  dsctl show web -o json | jq '.instances | length'\n";

constexpr std::size_t label_columns = 14;

std::string field(const char *label, const std::string &value) {
    return pad(label, label_columns) + cell(value) + '\n';
}

std::string instance_block(const v1::Instance &instance, bool color) {
    const std::string title = pad("instance", label_columns) + cell(instance.instance());
    const std::string where = node_text(instance.node()) + (instance.local() ? ", this node" : "");
    return '\n' + paint(title, Color::header, color) + '\n' +
           field("  endpoint", endpoint_text(instance.endpoint())) +
           field("  scope", scope_text(instance.scope())) +
           field("  ha role", ha_text(instance.ha_role())) +
           field("  issu role", issu_text(instance.issu_role())) +
           field("  issu id", std::to_string(instance.issu_id())) + pad("  node", label_columns) +
           where + '\n' + field("  id", id_text(instance.service_id())) +
           field("  generation", std::to_string(instance.generation())) +
           field("  pid", std::to_string(instance.pid()));
}

std::string snapshot_text(const v1::Snapshot &snapshot, bool color) {
    std::string text =
        paint(pad("name", label_columns) + cell(snapshot.name()), Color::header, color);
    text += '\n' + field("version", std::to_string(snapshot.version()));
    text += field("state", snapshot.reconciling() ? "reconciling" : "settled");
    text += field("instances", std::to_string(snapshot.instances_size()));
    for (const v1::Instance &instance : snapshot.instances()) {
        text += instance_block(instance, color);
    }
    return text;
}

int show(const Context &context, const std::string &name) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    v1::Snapshot found;
    const client::Outcome outcome =
        list_names(daemon, name, [&](const v1::Snapshot &snapshot) { found = snapshot; });
    const bool unknown = outcome.status == v1::STATUS_NOT_FOUND;
    if (!outcome.ok() && !unknown) return fail("cannot show '" + name + "'", outcome);
    if (found.instances_size() == 0) {
        complain("no instance of '" + name + "' is published");
        if (found.reconciling()) note_reconciling();
        return exit_not_found;
    }
    if (context.is_json()) {
        print_object(context, snapshot_json(found));
    } else {
        print(snapshot_text(found, context.color()));
    }
    if (found.reconciling()) note_reconciling();
    return exit_ok;
}

} // namespace

Action prepare_show(CLI::App &options) {
    auto name = std::make_shared<std::string>();
    options.description(description);
    options.footer(examples);
    options.add_option("NAME", *name, "Exact name")->required()->type_name("")->check(check_name);
    return [name](const Context &context) { return show(context, *name); };
}

} // namespace ds::cli
