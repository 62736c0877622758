#!/usr/bin/env bash
# Installs the Debian packages that the project needs and this machine lacks.
# usage: tools/setup.sh [build] [test] [bench] [coverage] [lint] [package]     (no word: build test)
# Says what it installs; quick and silent about the rest when nothing is missing.
set -euo pipefail

declare -A sets=(
  [build]="g++ make cmake ninja-build ccache pkg-config libboost1.81-dev protobuf-compiler libprotobuf-dev
           libcli11-dev libtomlplusplus-dev nlohmann-json3-dev libsystemd-dev libssl-dev"
  [test]="git clang-14 libclang-rt-14-dev libgtest-dev libgmock-dev python3 groff-base etcd-server openssl iproute2"
  [bench]="libbenchmark-dev libhiredis-dev redis-server dbus-broker python3-minimal etcd-server"
  [coverage]="gcovr"
  [package]="dpkg-dev binutils"
  [lint]="clang-tidy"
)

[ $# -gt 0 ] || set -- build test
wanted=()
for set_name in "$@"; do
  [ -n "${sets[$set_name]:-}" ] || { echo "setup: there is no set '$set_name' (${!sets[*]})" >&2; exit 2; }
  read -r -d '' -a packages <<<"${sets[$set_name]}" || true
  wanted+=("${packages[@]}")
done

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

echo "setup: installing ${missing[*]}"
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: needs root to install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -q &&
       "${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "setup: could not install: ${missing[*]}" >&2
  exit 1
fi
echo "setup: done"
