#!/usr/bin/env bash
# Builds the fuzz targets and runs each from its corpus. usage: tools/fuzz.sh [SECONDS_PER_TARGET]
# One line per target; exit status 1 and the path of the input when a target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
dir=build/fuzz
targets=(decoders frames relay_receive directory config)

# Short stacks and a small quarantine, and below no bookkeeping of how rare each feature is, make a
# run several times as fast; a finding's input, run by fuzz_replay_TARGET, shows the rest.
export ASAN_OPTIONS=malloc_context_size=1:quarantine_size_mb=16

mkdir -p "$dir/findings"
tools/build.sh fuzz "${targets[@]/#/fuzz_}"

result=0
for target in "${targets[@]}"; do
  log=$dir/findings/$target.log
  found=$dir/findings/$target-
  grown=$dir/grown/$target # inputs of this and earlier runs; the corpus itself stays as it is
  mkdir -p "$grown"
  status=0
  "$dir/bin/fuzz_$target" -max_total_time="$seconds" -entropic=0 -max_len=1024 -timeout=20 \
    -print_final_stats=1 \
    -artifact_prefix="$found" "$grown" "tests/fuzz/corpus/$target" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  reached=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1 || true)
  echo "fuzz: $target: ${runs:-0} executions, ${reached:-no coverage}"
  if [ "$status" -ne 0 ]; then
    result=1
    input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -1)
    finding=$(grep -m 1 -E 'FINDING|ERROR: |runtime error' "$log" || true)
    echo "fuzz: $target: FOUND ${finding:-status $status}; input ${input:-unknown}; log $log" >&2
  fi
done
exit "$result"
