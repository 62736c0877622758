#!/usr/bin/env bash
# Builds the simulator for speed and runs it. usage: tools/sim.sh [SEEDS] [NODES] [SCENARIO] [FIRST] [JOBS]
# One process per processor when JOBS is not given. docs/simulator.md tells how to read a failure.
set -euo pipefail
cd "$(dirname "$0")/.."

seeds=${1:-1000} nodes=${2:-5} scenario=${3:-all} first=${4:-1} jobs=${5:-$(nproc)}

tools/build.sh release ds_sim
exec build/release/bin/ds_sim --scenario "$scenario" --seeds "$seeds" --nodes "$nodes" \
  --first "$first" --jobs "$jobs"
