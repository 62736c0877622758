// dsctl clients: one line per client.
#include <memory>

#include "cli/context.h"
#include "cli/directory.h"
#include "cli/dump_json.h"
#include "cli/dump_rows.h"
#include "cli/help.h"
#include "cli/records.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Lists the daemon's clients: who they are, how much they hold, and how many bytes they have\n"
    "not taken yet (UNSENT). Clients that are connected and have published or registered nothing\n"
    "are listed too, this program among them. Ends with 3 when there is none of that name.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl clients\n"
                            "  dsctl clients --name camera -o wide\n"
                            "  dsctl clients -o json | jq 'max_by(.unsent_bytes)'\n";

int clients(const Context &context, const std::string &name) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    v1::Dump wish;
    wish.set_kind(v1::DUMP_KIND_CLIENTS);
    wish.set_name(name);
    Records records(context, client_titles(context.is_wide()));
    bool has_any = false;
    const client::Outcome outcome = dump_pages(daemon, wish, [&](const v1::DumpReply &page) {
        const std::uint64_t now_ns = wall_now_ns();
        for (const v1::DumpedClient &client : page.clients()) {
            has_any = true;
            if (context.is_json()) {
                records.add(client_json(client, now_ns));
            } else {
                records.add(client_row(client, context.is_wide(), now_ns));
            }
        }
        records.end_page();
    });
    if (!outcome.ok()) return fail("cannot list the clients", outcome);
    records.finish();
    if (has_any || name.empty()) return exit_ok;
    complain("there is no client '" + name + "'");
    return exit_not_found;
}

} // namespace

Action prepare_clients(CLI::App &options) {
    auto name = std::make_shared<std::string>();
    options.description(description);
    options.footer(examples);
    options.add_option("--name", *name, "Only clients of this name")
        ->type_name("CLIENT")
        ->check(check_name);
    return [name](const Context &context) { return clients(context, *name); };
}

} // namespace ds::cli
