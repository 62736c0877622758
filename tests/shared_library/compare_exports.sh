#!/usr/bin/env bash
# Compares the symbols that a shared library exports with what one header declares.
#
#   compare_exports.sh compiler nm library header include_path
#
# include_path is separated by colons. The header is preprocessed and only its own declarations
# count, not those of the headers it includes. Prints each difference; 1 when there is one.
set -eu -o pipefail
export LC_ALL=C

compiler=$1
nm=$2
library=$3
header=$4
include_path=$5

# The preprocessed text of the header's own lines: the line markers tell where each line is from.
own_text() {
    local folder flags=()
    while read -r -d : folder; do
        flags+=("-I$folder")
    done <<<"$include_path:"
    echo "#include \"$header\"" | "$compiler" -std=c11 -E "${flags[@]}" -x c - |
        awk -v header="$header" '
            /^# [0-9]+ "/ {
                split($0, parts, "\"")
                count = split(parts[2], path, "/")
                is_own = path[count] == header
                next
            }
            is_own'
}

# One declaration a line: everything in braces or parentheses is left out, so that no member and no
# parameter is taken for a declaration. A function keeps an empty pair of parentheses.
declarations() {
    tr '\n' ' ' | awk '
        {
            for (at = 1; at <= length($0); at++) {
                letter = substr($0, at, 1)
                if (letter == "{" || letter == "(") {
                    if (letter == "(" && depth == 0) printf "("
                    depth++
                } else if (letter == "}" || letter == ")") {
                    depth--
                    if (letter == ")" && depth == 0) printf ")"
                } else if (depth == 0) {
                    printf "%s", letter == ";" ? "\n" : letter
                }
            }
        }'
}

# The name before the parentheses of a function, or before the end or the bounds of extern data.
declared_symbols() {
    own_text | declarations |
        grep -Ev '^ *(typedef|enum|struct|union)( +[a-z_]+)? *$|^ *typedef|^ *$' |
        sed -E 's/\[[^]]*\]//g; s/ *\(.*$//; s/ *$//; s/^.*[ *]([A-Za-z_][A-Za-z_0-9]*)$/\1/' |
        sort
}

exported_symbols() {
    "$nm" -D --defined-only "$library" | awk '{ print $NF }' | sort
}

declared=$(declared_symbols)
exported=$(exported_symbols)
if [ -z "$declared" ]; then
    echo "$header declares nothing" >&2
    exit 1
fi
if [ "$declared" = "$exported" ]; then
    echo "$(wc -l <<<"$exported") symbols, as declared"
    exit 0
fi
comm -23 <(echo "$declared") <(echo "$exported") | sed 's/$/: declared, not exported/' >&2
comm -13 <(echo "$declared") <(echo "$exported") | sed 's/$/: exported, not declared/' >&2
exit 1
