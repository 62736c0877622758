#!/usr/bin/env bash
# Configures (once) and builds a preset. usage: tools/build.sh PRESET [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=$1
shift
dir=build/$preset
if [ ! -f "$dir/build.ninja" ]; then
  echo "build: configuring $preset"
  mkdir -p "$dir"
  cmake --preset "$preset" >"$dir/configure.log" 2>&1 || { cat "$dir/configure.log" >&2; exit 1; }
fi
echo "build: $preset${*:+ ($*)}"
ninja -C "$dir" --quiet "$@"
