#!/usr/bin/env bash
# Builds and runs the benchmarks of the library and of the daemon; tables on the terminal, JSON in out/bench/.
# usage: tools/bench.sh [OPTION...]     the options are dsbench's, for instance --runs 1 --secs 0.2 --only pipelined
# The comparison with other registries is bench/peers/run.sh; this script builds it as well.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/build.sh bench dsd bench_library bench_daemon bench_peers
bin=build/bench/bin
out=out/bench
mkdir -p "$out"

echo "bench: the library"
"$bin/bench_library" --benchmark_out="$out/library.json" --benchmark_out_format=json \
  --benchmark_counters_tabular=true 2>"$out/library.log" || { cat "$out/library.log" >&2; exit 1; }

echo
echo "bench: the daemon"
"$bin/dsbench" --json "$out/daemon.json" "$@"

echo
echo "bench: results are in $out; for the comparison with other registries run bench/peers/run.sh"
