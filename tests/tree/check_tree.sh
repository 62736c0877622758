#!/usr/bin/env bash
# Checks the sources against the house rules that a compiler does not see. Prints each violation as
# "file:line: reason" and exits with 1 when there is one.
#
#   check_tree.sh [root]      root: the tree to check, this one without an argument
#
# In a git work tree it looks at tracked and untracked files, but not at ignored ones. The patterns
# are written so that none of them matches its own line here.
set -u
shopt -s extglob
export LC_ALL=C.UTF-8

cd "${1:-$(dirname "${BASH_SOURCE[0]}")/../..}" || exit 2

lines_max=600
columns_max=100

# Where C++ sources may stand.
folders='shared_pkg/common/infra/directory_service/(lib_ds_server|common/src)
platform/include/platform
platform_default
proto
host
relay
client
cli
examples
sim
tests
bench
tools'

# Comes from elsewhere in the house and keeps its own style: size, layout and waiting.
is_guest() { [[ $1 == bench/peers/* ]]; }

violations=0
report() { # <file> <line> <reason>
  printf '%s:%s: %s\n' "$1" "$2" "$3"
  violations=$((violations + 1))
}

# Reports every line of the files that matches.
ban() { # <reason> <regular expression> <file>...
  local reason=$1 regex=$2 file line
  shift 2
  (($#)) || return 0
  while IFS=: read -r file line _; do
    report "$file" "$line" "$reason"
  done < <(printf '%s\0' "$@" | xargs -0 grep -nHP -e "$regex" -- /dev/null)
}

list_files() {
  if [[ -e .git ]]; then
    git ls-files -co --exclude-standard -z
  else
    find . -type f -not -path './build/*' -not -path './out/*' -printf '%P\0'
  fi
}

# ---- sort the files ----

texts=() sources=() cpp=() own_cpp=()
while IFS= read -r -d '' file; do
  [[ -f $file && -s $file ]] || continue
  [[ $file != tests/fuzz/corpus/* ]] || continue # inputs that only look like texts
  grep -Iq . "$file" || continue # binary
  texts+=("$file")
  case $file in
  *.cpp | *.h | *.cc | *.cxx | *.hpp | *.hh | *.c)
    cpp+=("$file")
    is_guest "$file" || own_cpp+=("$file") sources+=("$file")
    ;;
  *.def | *.sh | *.py | *.js | *.cmake | */CMakeLists.txt | *.proto)
    is_guest "$file" || sources+=("$file")
    ;;
  esac
done < <(list_files)

if ((${#texts[@]} == 0)); then
  echo "no files in $PWD" >&2
  exit 2
fi

# ---- whole files ----

check_sizes() {
  local file lines
  for file in "${sources[@]}"; do
    lines=$(wc -l <"$file")
    ((lines <= lines_max)) || report "$file" "$lines" "longer than $lines_max lines"
  done
}

check_last_newlines() {
  local file
  for file in "${texts[@]}"; do
    [[ -z $(tail -c 1 "$file") ]] ||
      report "$file" "$(($(wc -l <"$file") + 1))" 'no newline at the end of the file'
  done
}

check_folders() {
  local file allowed
  allowed="^($(paste -sd '|' <<<"$folders"))/"
  for file in "${cpp[@]}"; do
    [[ $file =~ $allowed ]] || report "$file" 1 'not in a folder for sources'
    is_guest "$file" || [[ $file == *.@(cpp|h) || $file == @(tests/shared_library|examples)/*.c ]] || report "$file" 1 'sources are named .cpp and .h'
  done
}

# A page may only speak of pages that are here too.
check_page_names() {
  local file line name
  while IFS=: read -r file line name; do
    [[ $name == //* ]] && continue # the rest of an address
    [[ -e $name || -e $(dirname "$file")/$name ]] ||
      printf '%s\0' "${texts[@]}" | grep -qzE "(^|/)${name##*/}$" ||
      report "$file" "$line" "names the page $name, which is not in the tree"
  done < <(printf '%s\0' "${texts[@]}" |
    xargs -0 grep -noHP -e '(?<![\w*./-])[\w./-]*\w[.]md\b' -- /dev/null)
}

check_sizes
check_last_newlines
check_folders
check_page_names

# ---- lines of C++ ----

ban 'tab' '\t' "${own_cpp[@]}"
ban "wider than $columns_max columns" "^.{$((columns_max + 1)),}" "${own_cpp[@]}"
ban 'include path climbs out of its folder' '#\s*include\s*[<"][^">]*\.\./\.\./' "${own_cpp[@]}"
ban 'imports all of std' 'using\s+namespace\s+std\s*;' "${own_cpp[@]}"

# ---- lines of any source ----

ban 'sleeps: wait for an event instead' \
  '\b(u|nano|clock_nano)?[s]leep(_for|_until)?\s*\(|\b[s]leep\s+[\d$."]' \
  "${sources[@]}"

# ---- lines of any text ----

ban 'trailing blanks' '[ \t]+$' "${texts[@]}"
ban 'unfinished work: finish it or write an issue' '\b(TO[D]O|FIX[M]E|X[X]X)\b' "${texts[@]}"
ban 'merge conflict marker' '^(<<<<<<[<] |======[=]$|>>>>>>[>] )' "${texts[@]}"
ban 'absolute path of one machine' \
  '(?<![\w.$})~-])/([h]ome|[U]sers)/[a-z]|(?<![\w.$})~-])/([r]oot|[w]ork)\b' "${texts[@]}"
ban 'host of a package registry' \
  '\b(pyp[i]\.org|pythonhoste[d]\.org|npmj[s]\.(org|com)|crate[s]\.io|prox[y]\.golang\.org|rubygem[s]\.org|repo[1]?\.mave[n]\.org|conan\.i[o]|docker\.i[o]|de[b]\.debian\.org)\b' \
  "${texts[@]}"
ban 'refers to a numbered part: name the thing instead' '\bPart[s] \d+\.\d|\bPar[t] \d+\.\d' \
  "${texts[@]}"

((violations == 0)) || echo "$violations violations" >&2
((violations == 0))
