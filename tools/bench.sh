#!/usr/bin/env bash
# Builds and runs the benchmarks; tables on the terminal, JSON in out/bench/.
# usage: tools/bench.sh [library|daemon|relay] [OPTION...]
# The options are those of the program that the word names, for instance: relay --only latency,bulk. Without a
# word everything is run, and the options are dsbench's, for instance: --runs 1 --secs 0.2 --only pipelined.
# The comparison with other registries is bench/peers/run.sh; this script builds it as well.
set -euo pipefail
cd "$(dirname "$0")/.."

what=all
case ${1:-} in library | daemon | relay)
  what=$1
  shift
  ;;
esac

tools/build.sh bench dsd bench_library bench_daemon bench_relay bench_peers
bin=build/bench/bin
out=out/bench
mkdir -p "$out"

bench_library() {
  echo "bench: the library"
  "$bin/bench_library" --benchmark_out="$out/library.json" --benchmark_out_format=json \
    --benchmark_counters_tabular=true "$@" 2>"$out/library.log" || { cat "$out/library.log" >&2; exit 1; }
}
bench_daemon() {
  echo "bench: the daemon"
  "$bin/dsbench" --json "$out/daemon.json" "$@"
}
bench_relay() {
  echo "bench: replication"
  "$bin/bench_relay" --json "$out/relay.json" "$@"
}

if [ "$what" = all ]; then
  bench_library
  echo
  bench_daemon "$@"
  echo
  bench_relay --runs 3 --only latency,bulk,changes,streams,memory,death # what is left takes four idle minutes
else
  "bench_$what" "$@"
fi
echo
echo "bench: results are in $out; for the comparison with other registries run bench/peers/run.sh"
