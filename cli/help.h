// How options are declared and how help reads, the same for every verb.
#pragma once
#include <map>
#include <memory>
#include <string>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "cli/context.h"

namespace ds::cli {

// Usage first, then the purpose, then arguments, options, verbs and examples, without the parser's
// own marks.
class HelpText : public CLI::Formatter {
  public:
    // short_help: what the list of verbs says of each, by name.
    explicit HelpText(std::map<std::string, std::string> short_help);

    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override;
    std::string make_usage(const CLI::App *app, std::string name) const override;
    std::string make_description(const CLI::App *app) const override;
    std::string make_footer(const CLI::App *app) const override;
    std::string make_subcommand(const CLI::App *verb) const override;
    std::string make_option_opts(const CLI::Option *option) const override;
    std::string make_option_name(const CLI::Option *option, bool positional) const override;

  private:
    std::map<std::string, std::string> short_help_;
};

// An option whose value is one of some words, in any case.
template <class Value, class Target>
CLI::Option *add_word_option(CLI::App &app, const std::string &flags, Target &target,
                             const std::map<std::string, Value> &words, const std::string &help) {
    const auto take = [&target, &words, flags](std::string word) {
        for (char &c : word)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        if (const auto found = words.find(word); found != words.end()) {
            target = found->second;
            return;
        }
        std::string known;
        for (const auto &[name, value] : words)
            known += (known.empty() ? "" : ", ") + name;
        const std::string flag = flags.substr(flags.find("--"));
        throw CLI::ValidationError(flag, '\'' + word + "' is none of " + known);
    };
    return app.add_option_function<std::string>(flags, take, help);
}

// --socket, --output, --no-color and --help. They may stand before and behind the verb.
void add_global_options(CLI::App &app, Context &context);

} // namespace ds::cli
