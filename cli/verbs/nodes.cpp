// dsctl nodes: the nodes that the directory has heard of.
#include "cli/context.h"
#include "cli/directory.h"
#include "cli/dump_json.h"
#include "cli/dump_rows.h"
#include "cli/help.h"
#include "cli/records.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Lists the nodes of the cluster: this one, those that the relay holds for alive, and those\n"
    "that the directory has heard of since its start. STATE is up, down or, while the relay is\n"
    "away, unknown; AGE is that of the node's daemon, by that node's clock; SERVICES are those\n"
    "known here; DOWN is how often the node was reported down. The wide format adds counters.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl nodes\n"
                            "  dsctl nodes -o wide\n"
                            "  dsctl nodes -o json | jq '.[] | select(.times_down > 0)'\n";

int nodes(const Context &context) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    Records records(context, node_titles(context.is_wide()));
    const client::Outcome outcome = node_pages(daemon, [&](const v1::NodesReply &page) {
        const std::uint64_t now_ns = wall_now_ns();
        for (const v1::Node &node : page.nodes()) {
            if (context.is_json()) {
                records.add(node_json(node, now_ns));
            } else {
                records.add(node_row(node, context.is_wide(), now_ns));
            }
        }
        records.end_page();
    });
    if (!outcome.ok()) return fail("cannot list the nodes", outcome);
    records.finish();
    return exit_ok;
}

} // namespace

Action prepare_nodes(CLI::App &options) {
    options.description(description);
    options.footer(examples);
    return [](const Context &context) { return nodes(context); };
}

} // namespace ds::cli
