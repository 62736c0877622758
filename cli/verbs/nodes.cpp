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
    "Lists the nodes that the directory has heard of since its start: this one, and those whose\n"
    "services a relay has delivered. The counters are those of the node's services; DOWN is how\n"
    "often the node was reported down.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl nodes\n"
                            "  dsctl nodes -o json | jq '.[] | select(.times_down > 0)'\n";

int nodes(const Context &context) {
    v1::Request request;
    request.mutable_nodes();
    v1::Reply reply;
    const int code = ask(context, "cannot ask for the nodes", request, reply);
    if (code != exit_ok) return code;
    Records records(context, node_titles());
    const std::uint64_t now_ns = wall_now_ns();
    for (const v1::Node &node : reply.nodes().nodes()) {
        if (context.is_json()) {
            records.add(node_json(node, now_ns));
        } else {
            records.add(node_row(node, now_ns));
        }
    }
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
