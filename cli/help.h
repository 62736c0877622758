// How options are declared and how help reads, the same for every verb.
#pragma once
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

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

// For CLI::Option::transform(): takes one of the words, in any case, and makes it lower case.
// words_of() finds them in the option.
CLI::Validator one_of(std::vector<std::string> words);
// Empty when the option takes something else.
std::vector<std::string> words_of(const CLI::Option &option);

// An option, or an argument, whose value is one of some words.
template <class Value, class Target>
CLI::Option *add_word_option(CLI::App &app, const std::string &flags, Target &target,
                             const std::map<std::string, Value> &words, const std::string &help) {
    std::vector<std::string> known;
    for (const auto &[word, value] : words)
        known.push_back(word);
    const auto take = [&target, &words](const std::string &word) { target = words.at(word); };
    return app.add_option_function<std::string>(flags, take, help)->transform(one_of(known));
}

// --socket, --output, --no-color and --help. They may stand before and behind the verb.
void add_global_options(CLI::App &app, Context &context);

} // namespace ds::cli
