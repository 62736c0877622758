// dsctl dump: everything that the directory knows of its services, registrations or clients.
#include <memory>

#include "cli/context.h"
#include "cli/directory.h"
#include "cli/dump_json.h"
#include "cli/dump_rows.h"
#include "cli/help.h"
#include "cli/records.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Shows everything that the directory knows:\n"
    "  services        a row for each service; in JSON names with services and registrations\n"
    "  registrations   a row for each registration, also for names that nobody publishes\n"
    "  clients         a row for each service and registration of each client\n"
    "Pages are printed as they come, so that a directory of any size can be dumped. It is not one\n"
    "moment: what changes meanwhile may be seen or missed. Times are local, in JSON UTC, and come\n"
    "with their age. Ends with 3 when a filter was given and nothing passes it.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl dump services --scope system\n"
                            "  dsctl dump services --node 02:00:00:00:00:01 -o wide\n"
                            "  dsctl dump registrations --name orders\n"
                            "  dsctl dump clients -o jsonl | jq 'select(.unsent_bytes > 0)'\n";

struct Options {
    v1::DumpKind kind = v1::DUMP_KIND_NONE;
    std::string name, node;
    v1::Scope scope = v1::SCOPE_NONE;

    bool is_filtered() const { return !name.empty() || !node.empty() || scope != v1::SCOPE_NONE; }
};

class Dumper {
  public:
    Dumper(const Context &context, v1::DumpKind kind)
        : context_(context), kind_(kind), records_(context, dump_titles(kind, context.is_wide())) {}

    void take(const v1::DumpReply &page);
    void finish() { records_.finish(); }
    bool has_any() const { return has_any_; }

  private:
    void take(const v1::DumpedName &name, std::uint64_t now_ns);
    void take(const v1::DumpedClient &client, std::uint64_t now_ns);
    void add(const std::vector<Cells> &rows);

    const Context &context_;
    v1::DumpKind kind_;
    Records records_;
    std::vector<std::string> cut_; // of this page
    bool has_any_ = false;
};

void Dumper::take(const v1::DumpReply &page) {
    const std::uint64_t now_ns = wall_now_ns();
    cut_.clear();
    for (const v1::DumpedName &name : page.names())
        take(name, now_ns);
    for (const v1::DumpedClient &client : page.clients())
        take(client, now_ns);
    records_.end_page();
    for (const std::string &sentence : cut_)
        complain(sentence);
}

void Dumper::take(const v1::DumpedName &name, std::uint64_t now_ns) {
    has_any_ = true;
    if (std::string cut = what_was_cut(name); !cut.empty()) cut_.push_back(std::move(cut));
    if (context_.is_json()) {
        records_.add(dumped_name_json(name, kind_, now_ns));
    } else if (kind_ == v1::DUMP_KIND_SERVICES) {
        add(service_rows(name, context_.is_wide(), now_ns));
    } else {
        add(registration_rows(name, context_.is_wide(), now_ns));
    }
}

void Dumper::take(const v1::DumpedClient &client, std::uint64_t now_ns) {
    has_any_ = true;
    if (std::string cut = what_was_cut(client); !cut.empty()) cut_.push_back(std::move(cut));
    if (context_.is_json()) {
        records_.add(dumped_client_json(client, now_ns));
    } else {
        add(holding_rows(client, context_.is_wide(), now_ns));
    }
}

void Dumper::add(const std::vector<Cells> &rows) {
    for (const Cells &cells : rows)
        records_.add(cells);
}

// "local" stands in tables for the node of the daemon, and can be asked for.
std::string node_bytes(const Daemon &daemon, const std::string &text) {
    if (text != "local") return parse_node(text).value_or("");
    ds_client_info_t info{};
    info.size = sizeof info;
    ds_client_get_info(daemon.get(), &info);
    return {reinterpret_cast<const char *>(info.node), sizeof info.node};
}

int dump(const Context &context, const Options &options) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    v1::Dump wish;
    wish.set_kind(options.kind);
    wish.set_name(options.name);
    wish.set_scope(options.scope);
    if (!options.node.empty()) wish.set_node(node_bytes(daemon, options.node));
    Dumper dumper(context, options.kind);
    const client::Outcome outcome =
        dump_pages(daemon, wish, [&](const v1::DumpReply &page) { dumper.take(page); });
    if (!outcome.ok()) return fail("cannot dump", outcome);
    dumper.finish();
    if (dumper.has_any() || !options.is_filtered()) return exit_ok;
    complain("nothing passes the filter");
    return exit_not_found;
}

const std::map<std::string, v1::DumpKind> &kind_words() {
    static const std::map<std::string, v1::DumpKind> words = {
        {"services", v1::DUMP_KIND_SERVICES},
        {"registrations", v1::DUMP_KIND_REGISTRATIONS},
        {"clients", v1::DUMP_KIND_CLIENTS}};
    return words;
}

std::string check_node(const std::string &text) {
    if (text == "local" || parse_node(text)) return "";
    return '\'' + text + "' is no address of a node: write 02:00:00:00:00:01 or local";
}

} // namespace

Action prepare_dump(CLI::App &app) {
    auto options = std::make_shared<Options>();
    app.description(description);
    app.footer(examples);
    add_word_option(app, "KIND", options->kind, kind_words(), "services, registrations or clients")
        ->required()
        ->type_name("");
    app.add_option("--name", options->name, "Only this name: of the service, or of the client")
        ->type_name("NAME")
        ->check(check_name);
    app.add_option("--node", options->node, "Only services of this node: its address, or local")
        ->type_name("ADDRESS")
        ->check(check_node);
    add_word_option(app, "--scope", options->scope, scope_words(),
                    "Only services of this scope: rack, system or local")
        ->type_name("SCOPE");
    app.callback([options] {
        const bool chooses_services = !options->node.empty() || options->scope != v1::SCOPE_NONE;
        if (options->kind == v1::DUMP_KIND_REGISTRATIONS && chooses_services) {
            throw CLI::ValidationError("--node and --scope choose services, "
                                       "and registrations have neither");
        }
    });
    return [options](const Context &context) { return dump(context, *options); };
}

} // namespace ds::cli
