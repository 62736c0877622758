#!/usr/bin/env bash
# Runs the unit tests of a coverage build, prints the library's line and branch coverage, and lists
# what they never ran with the reason from tests/unit/coverage_gaps.txt. Fails when a gap has no
# reason, a reason no gap, or a percentage is too low (coverage_gaps.py).
# usage: tools/coverage.sh BUILD_DIRECTORY     (a page with every line is written to out/coverage/)
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
library=shared_pkg/common/infra/directory_service
find "$build" -name '*.gcda' -delete
"$build/bin/unit_tests" --gtest_brief=1
mkdir -p out/coverage
gcovr --root . --object-directory "$build" --filter "$library/" --exclude-throw-branches \
  --html-details out/coverage/index.html --json out/coverage/report.json --txt out/coverage/summary.txt
cat out/coverage/summary.txt
tools/coverage_gaps.py out/coverage/report.json tests/unit/coverage_gaps.txt
