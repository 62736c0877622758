#!/usr/bin/env bash
# The list of exported functions names exactly what the version script exports, and operations that
# are in the table. usage: check_operations.sh VERSION_SCRIPT LIST TABLE
set -euo pipefail
version_script=$1 list=$2 table=$3

diff <(sed -n 's/^ *\([a-z][a-z0-9_]*\);$/\1/p' "$version_script" | sort) \
  <(grep -v '^#' "$list" | awk '{ print $1 }' | sort)

named=$(grep -v -e '^#' -e 'not driven' -e 'every operation' "$list" |
  sed 's/^[^ ]* *//; s/;.*//' | tr -d ' ' | tr ',' '\n' | sort -u)
in_table=$(sed -n 's/.*&History::\([a-z_]*\)}.*/\1/p' "$table" | sort)
[ -z "$(uniq -d <<<"$in_table")" ]
missing=$(comm -23 <(echo "$named") <(echo "$in_table"))
if [ -n "$missing" ]; then
  echo "no such operation:" $missing >&2
  exit 1
fi
