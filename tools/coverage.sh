#!/usr/bin/env bash
# Runs the unit tests of a coverage build and prints the library's line and branch coverage.
# usage: tools/coverage.sh BUILD_DIRECTORY     (a page with every line is written to out/coverage/)
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
library=shared_pkg/common/infra/directory_service
find "$build" -name '*.gcda' -delete
"$build/bin/unit_tests" --gtest_brief=1
mkdir -p out/coverage
gcovr --root . --object-directory "$build" --filter "$library/" --exclude-throw-branches \
  --html-details out/coverage/index.html --print-summary --txt out/coverage/summary.txt
cat out/coverage/summary.txt
