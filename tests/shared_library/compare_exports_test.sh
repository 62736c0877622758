#!/usr/bin/env bash
# The comparison of exports passes for a library that fits its header, and names what does not fit.
#
#   compare_exports_test.sh compiler nm work_folder
set -eu -o pipefail

compiler=$1
nm=$2
work=$3
compare=$(dirname "${BASH_SOURCE[0]}")/compare_exports.sh

rm -rf "$work"
mkdir -p "$work"
cat >"$work/other.h" <<'HEADER'
int elsewhere(void);
HEADER
cat >"$work/sample.h" <<'HEADER'
#include "other.h"
enum { NONE = 0 };
typedef struct pair {
    int first;
    int (*second)(int);
} pair_t;
typedef int (*callback_fn)(pair_t *pair, void *ctx);
struct forward;
extern pair_t pairs[2];
extern const pair_t *chosen;
int plain(void);
void **pointer(callback_fn fn,
               void *ctx);
HEADER

# check name expected_result expected_text source
check() {
    echo "$4" >"$work/$1.c"
    "$compiler" -shared -fPIC -nostdlib -o "$work/$1.so" "$work/$1.c"
    local text result=0
    text=$("$compare" "$compiler" "$nm" "$work/$1.so" sample.h "$work" 2>&1) || result=$?
    if [ "$result" != "$2" ] || [ "$text" != "$3" ]; then
        echo "$1: result $result, text: $text" >&2
        exit 1
    fi
}

all='int pairs[2]; void *chosen; void pointer(void) {}'
check fitting 0 '4 symbols, as declared' "$all void plain(void) {}"
check missing 1 'plain: declared, not exported' "$all"
check extra 1 'elsewhere: exported, not declared' "$all void plain(void) {} void elsewhere(void) {}"
