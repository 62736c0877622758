#include "cli/completion.h"

#include <vector>

#include "cli/help.h"

namespace ds::cli {
namespace {

// What does not depend on the verbs. Words that readline has cut at ':' and '=' are put together
// again, and of a completed word only what stands behind the last of them is given back.
constexpr char engine[] = R"bash(
# The names that are published, one a line. Those with a quote or a backslash are left out.
_dsctl_names() {
    "${words[0]/#\~/$HOME}" "${socket[@]}" list -o jsonl 2>/dev/null |
        sed -n 's/^{"name":"\([^"\\]*\)",.*/\1/p' | sort -u
}

_dsctl() {
    local IFS=$' \t\n' breaks=${COMP_WORDBREAKS//[^:=]/}
    local words=() word glue=
    for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        word=${word//\\/}
        if [[ ${#words[@]} -gt 0 && -n $breaks && (-n $glue || $word == ["$breaks"]*) ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
        [[ -n $breaks && $word == *["$breaks"] ]] && glue=1 || glue=
    done

    local options valued verb= option= place=0 socket=() i
    _dsctl_verb ''
    for ((i = 1; i < ${#words[@]} - 1; i++)); do
        word=${words[i]}
        if [[ -n $option ]]; then
            [[ $option == --socket ]] && socket=(--socket "$word")
            option=
        elif [[ $word == -* ]]; then
            [[ $word == --socket=* ]] && socket=("$word")
            [[ $valued == *" $word "* ]] && option=$word
        elif [[ -z $verb ]]; then
            verb=$word
            _dsctl_verb "$verb"
        else
            place=$((place + 1))
        fi
    done

    local current=${words[-1]} prefix= kind= values=
    [[ -n $breaks ]] && prefix=${current%"${current##*["$breaks"]}"}
    if [[ -z $option && $current == --*=* ]]; then
        option=${current%%=*}
        current=${current#*=}
        prefix=${prefix#"$option="}
    fi
    if [[ -n $option ]]; then
        _dsctl_values "$verb" "$option"
    elif [[ $current == -* ]]; then
        values=$options
    else
        _dsctl_values "$verb" "$place"
    fi

    COMPREPLY=()
    case $kind in
    names)
        while IFS= read -r word; do
            [[ $word == "$current"* ]] || continue
            printf -v word %q "${word#"$prefix"}"
            COMPREPLY+=("$word")
        done < <(_dsctl_names)
        ;;
    files)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        ;;
    directories)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        ;;
    *)
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
        ;;
    esac
}

complete -F _dsctl dsctl
)bash";

std::string quoted(const std::string &text) {
    return '\'' + text + '\'';
}

template <class Strings> std::string joined(const Strings &strings) {
    std::string text;
    for (const std::string &string : strings)
        text += (text.empty() ? "" : " ") + string;
    return text;
}

// The shell function sets what `kind` and `values` mean to the engine.
std::string values_of(const CLI::Option &option, const std::string &long_name) {
    if (const auto words = words_of(option); !words.empty())
        return "values=" + quoted(joined(words));
    const std::string type = option.get_type_name();
    if (type == "PATH") return "kind=files";
    if (type == "DIRECTORY") return "kind=directories";
    const bool is_name =
        (long_name == "--name" && type == "NAME") || long_name == "NAME" || long_name == "PATTERN";
    return is_name ? "kind=names" : "";
}

struct Script {
    std::string verbs;  // the cases of _dsctl_verb
    std::string values; // the cases of _dsctl_values
};

void add_case(std::string &cases, const std::string &pattern, const std::string &command) {
    if (!command.empty()) cases += "    " + pattern + ") " + command + " ;;\n";
}

// Their places are counted from 0; one that takes any number of words has all that follow.
void add_arguments(Script &script, const CLI::App &app, const std::string &verb) {
    const auto arguments =
        app.get_options([](const CLI::Option *option) { return option->get_positional(); });
    for (std::size_t place = 0; place < arguments.size(); place++) {
        const CLI::Option &argument = *arguments[place];
        const bool is_many = argument.get_expected_max() > 1;
        const std::string pattern =
            is_many ? quoted(verb + ' ') + "[0-9]*" : quoted(verb + ' ' + std::to_string(place));
        add_case(script.values, pattern, values_of(argument, argument.get_name(true)));
    }
}

void add_options(Script &script, const CLI::App &app, const std::string &verb) {
    std::vector<std::string> all, valued;
    const auto options =
        app.get_options([](const CLI::Option *option) { return !option->get_positional(); });
    for (const CLI::Option *option : options) {
        std::vector<std::string> names;
        for (const std::string &name : option->get_snames())
            names.push_back('-' + name);
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
        all.insert(all.end(), names.begin(), names.end());
        if (option->get_items_expected_max() == 0) continue;
        valued.insert(valued.end(), names.begin(), names.end());
        for (const std::string &name : names)
            add_case(script.values, quoted(verb + ' ' + name), values_of(*option, names.back()));
    }
    add_case(script.verbs, quoted(verb),
             "options=" + quoted(joined(all)) + " valued=" + quoted(' ' + joined(valued) + ' '));
}

} // namespace

std::string bash_completion(const CLI::App &all) {
    Script script;
    std::vector<std::string> verbs;
    add_options(script, all, "");
    for (const CLI::App *verb : all.get_subcommands([](const CLI::App *) { return true; })) {
        verbs.push_back(verb->get_name());
        add_options(script, *verb, verb->get_name());
        add_arguments(script, *verb, verb->get_name());
    }
    add_case(script.values, quoted(" 0"), "values=" + quoted(joined(verbs)));
    return "# Completion of dsctl for bash, printed by 'dsctl completion bash'.\n"
           "\n"
           "# VERB, empty for none: sets its options, and those that take a value.\n"
           "_dsctl_verb() {\n"
           "    options= valued=\n"
           "    case $1 in\n" +
           script.verbs +
           "    esac\n"
           "}\n"
           "\n"
           "# VERB and an option or the place of an argument: sets what can stand there.\n"
           "_dsctl_values() {\n"
           "    case \"$1 $2\" in\n" +
           script.values +
           "    esac\n"
           "}\n" +
           engine;
}

} // namespace ds::cli
