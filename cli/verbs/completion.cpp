// dsctl completion: the script that a shell completes command lines with.
#include <memory>

#include "cli/completion.h"
#include "cli/context.h"
#include "cli/help.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Prints a script with which bash completes verbs, options, their values, and the names of\n"
    "services that are published. The installed package brings it along.";

constexpr char examples[] = "Examples:\n"
                            "  source <(dsctl completion bash)\n"
                            "  dsctl completion bash > /etc/bash_completion.d/dsctl\n";

} // namespace

Action prepare_completion(CLI::App &options) {
    options.description(description);
    options.footer(examples);
    options.add_option("SHELL", "Which shell: bash")
        ->required()
        ->type_name("")
        ->transform(one_of({"bash"}));
    const CLI::App *all = options.get_parent();
    return [all](const Context &) {
        print(bash_completion(*all));
        return exit_ok;
    };
}

} // namespace ds::cli
