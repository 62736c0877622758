#!/usr/bin/env bash
# Breaks each rule of check_tree.sh once, in a tree made for it, and demands exactly those reports.
#
#   check_tree_test.sh <scratch folder>
#
# Words that the rules ban are put together from pieces, or this file would break them itself.
set -u

check=$(realpath "$(dirname "${BASH_SOURCE[0]}")/check_tree.sh")
tree=${1:?scratch folder}
ext=md
guide=docs/guide.$ext
gone=docs/gone.$ext

rm -rf "$tree"
mkdir -p "$tree"/{host,docs,elsewhere,bench/peers}
cd "$tree" || exit 2

# ---- a tree that keeps every rule ----

printf '# Guide\n\nSee host/clean.h.\n' >$guide
printf '// The guide is %s.\n#include "host/clean.h"\n' $guide >host/clean.cpp
printf '#pragma once\n' >host/clean.h
{ printf 's''leep(1);\t\n' | tr -d '\t'; seq 700 | sed 's|^|// |'; } >bench/peers/guest.cpp

failures=0
fail() {
  echo "$1" >&2
  failures=$((failures + 1))
}

reports=$("$check" "$tree" 2>/dev/null) || fail "a clean tree is reported:
$reports"

# ---- the same tree with every rule broken once ----

seq 601 | sed 's|^|// |' >host/long.cpp
printf '// no newline' >host/cut.cpp
printf '// stray\n' >elsewhere/stray.cpp
printf '// odd name\n' >host/odd.hpp
printf '// See %s.\n' $gone >host/page.cpp
printf '\tint a;\n' >host/tab.cpp
printf '// %0101d\n' 0 >host/wide.cpp
printf '#include "../''../host/clean.h"\n' >host/climb.cpp
printf 'using namespace st''d;\n' >host/import.cpp
printf 'void f() { us''leep(10); }\n' >host/doze.cpp
printf 'while ! ready; do s''leep 0.1; done\n' >host/doze.sh
printf '// blank \n' >host/blank.cpp
printf '// TO''DO later\n' >host/todo.cpp
printf '<<<<<''<< ours\n' >docs/conflict.txt
printf 'cd /wo''rk/tree\n' >docs/place.txt
printf 'cp x /ho''me/me\n' >docs/place2.txt
printf 'from pyp''i.org\n' >docs/registry.txt
printf 'as in Pa''rt 3.1\n' >docs/numbered.txt

expected="docs/conflict.txt:1: merge conflict marker
docs/numbered.txt:1: refers to a numbered part: name the thing instead
docs/place.txt:1: absolute path of one machine
docs/place2.txt:1: absolute path of one machine
docs/registry.txt:1: host of a package registry
elsewhere/stray.cpp:1: not in a folder for sources
host/blank.cpp:1: trailing blanks
host/climb.cpp:1: include path climbs out of its folder
host/cut.cpp:1: no newline at the end of the file
host/doze.cpp:1: sleeps: wait for an event instead
host/doze.sh:1: sleeps: wait for an event instead
host/import.cpp:1: imports all of std
host/long.cpp:601: longer than 600 lines
host/odd.hpp:1: sources are named .cpp and .h
host/page.cpp:1: names the page $gone, which is not in the tree
host/tab.cpp:1: tab
host/todo.cpp:1: unfinished work: finish it or write an issue
host/wide.cpp:1: wider than 100 columns"

reports=$("$check" "$tree" 2>/dev/null) && fail 'a tree with every rule broken passes'
difference=$(diff <(LC_ALL=C sort <<<"$expected") <(LC_ALL=C sort <<<"$reports")) ||
  fail "expected (<) and reported (>) differ:
$difference"

exit "$((failures != 0))"
