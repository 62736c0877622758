#include "cli/help.h"

#include <utility>

namespace ds::cli {
namespace {

constexpr char exit_codes[] = "Exit codes:\n"
                              "  0 ok   1 failure   2 usage   3 not found   4 daemon unreachable\n"
                              "  5 timeout   6 denied, by a rule or a limit\n";

// The parser tells the name of a type and behind it what the checks of the option are called. Only
// those of one_of() are called something: their words.
constexpr char type_end = ':';
constexpr char word_end = '|';

std::string trimmed(std::string text) {
    text.erase(0, std::min(text.find_first_not_of('\n'), text.size()));
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

std::string lower(std::string word) {
    for (char &c : word)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return word;
}

} // namespace

HelpText::HelpText(std::map<std::string, std::string> short_help)
    : short_help_(std::move(short_help)) {
    column_width(26);
    label("POSITIONALS", "Arguments");
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "VERB");
}

// The parser's own parts end with one newline or two; every part here ends with exactly one blank
// line.
std::string HelpText::make_help(const CLI::App *app, std::string name,
                                CLI::AppFormatMode mode) const {
    const std::string parts[] = {make_usage(app, std::move(name)), make_description(app),
                                 make_subcommands(app, mode),      make_positionals(app),
                                 make_groups(app, mode),           make_footer(app)};
    std::string out;
    for (const std::string &part : parts) {
        std::string text = trimmed(part);
        for (std::size_t at = 0; (at = text.find("\n\n\n")) != text.npos;)
            text.erase(at, 1);
        if (!text.empty()) out += (out.empty() ? "" : "\n") + text + '\n';
    }
    return out;
}

std::string HelpText::make_usage(const CLI::App *app, std::string name) const {
    std::string usage = "Usage: " + (name.empty() ? app->get_name() : name);
    if (app->get_parent() == nullptr) return usage + " VERB [OPTIONS]";
    const auto positionals =
        app->get_options([](const CLI::Option *option) { return option->get_positional(); });
    for (const CLI::Option *option : positionals) {
        std::string argument =
            option->get_name(true) + (option->get_expected_max() > 1 ? "..." : "");
        usage += ' ' + (option->get_required() ? argument : '[' + argument + ']');
    }
    return usage + " [OPTIONS]";
}

std::string HelpText::make_description(const CLI::App *app) const {
    return app->get_description();
}

std::string HelpText::make_footer(const CLI::App *app) const {
    return trimmed(app->get_footer()) + "\n\n" + exit_codes;
}

std::string HelpText::make_subcommand(const CLI::App *verb) const {
    std::string name = "  " + verb->get_name();
    name.resize(std::max(name.size() + 2, get_column_width()), ' ');
    const auto found = short_help_.find(verb->get_name());
    return name + (found == short_help_.end() ? "" : found->second) + '\n';
}

std::string HelpText::make_option_opts(const CLI::Option *option) const {
    const std::string type = option->get_type_name();
    const std::string name = type.substr(0, type.find(type_end));
    return name.empty() ? "" : ' ' + name;
}

std::string HelpText::make_option_name(const CLI::Option *option, bool positional) const {
    if (positional) return option->get_name(true);
    std::string text = option->get_name(false, true);
    for (std::size_t at = 0; (at = text.find(',', at)) != text.npos; at += 2)
        text.insert(at + 1, " ");
    return text;
}

CLI::Validator one_of(std::vector<std::string> words) {
    std::string description;
    for (const std::string &word : words)
        description += (description.empty() ? "" : std::string(1, word_end)) + word;
    const auto check = [words = std::move(words)](std::string &given) -> std::string {
        const std::string wanted = lower(given);
        std::string known;
        for (const std::string &word : words) {
            if (word == wanted) {
                given = wanted;
                return "";
            }
            known += (known.empty() ? "" : ", ") + word;
        }
        return '\'' + given + "' is none of " + known;
    };
    return CLI::Validator(check, description);
}

std::vector<std::string> words_of(const CLI::Option &option) {
    const std::string type = option.get_type_name();
    const std::size_t end = type.find(type_end);
    if (end == type.npos) return {};
    return CLI::detail::split(type.substr(end + 1), word_end);
}

void add_global_options(CLI::App &app, Context &context) {
    static const std::map<std::string, Format> formats = {{"table", Format::table},
                                                          {"wide", Format::wide},
                                                          {"json", Format::json},
                                                          {"jsonl", Format::jsonl}};
    constexpr char group[] = "Global options";
    app.add_option("--socket", context.socket, "The daemon's socket (default: 'dsctl --help')")
        ->type_name("PATH")
        ->group(group);
    add_word_option(app, "-o,--output", context.format, formats,
                    "table (default), wide, json or jsonl (one object a line)")
        ->type_name("FORMAT")
        ->group(group);
    app.add_flag("--no-color", context.no_color, "No colours; NO_COLOR does the same")
        ->group(group);
    app.set_help_flag("-h,--help", "Print this help and end")->group(group);
}

} // namespace ds::cli
