#!/usr/bin/env bash
# The installed tree is complete, and the unit names the daemon where it was installed.
#
#   install_test.sh build_folder work_folder
set -eu -o pipefail

build=$1
work=$2

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --component daemon --prefix "$work/prefix" >"$work/install.log"
prefix=$work/prefix

fail() { echo "$*" >&2; exit 1; }
for file in bin/dsctl sbin/dsd lib/systemd/system/dsd.service lib/systemd/system/dsd.socket \
  lib/sysusers.d/dsd.conf lib/tmpfiles.d/dsd.conf share/doc/directory_service/examples/ds.toml \
  share/man/man1/dsctl.1 share/man/man5/ds.toml.5 share/man/man7/dsd-protocol.7 share/man/man8/dsd.8; do
  [ -s "$prefix/$file" ] || fail "$file is missing"
done
bash -n "$prefix/share/bash-completion/completions/dsctl" || fail 'the completion is no script'
grep -qx "ExecStart=$prefix/sbin/dsd" "$prefix/lib/systemd/system/dsd.service" ||
  fail 'the unit starts another daemon'
[ "$("$prefix/sbin/dsd" --check-config "$prefix/share/doc/directory_service/examples/ds.toml")" = \
  "$prefix/share/doc/directory_service/examples/ds.toml: ok" ] || fail 'the sample is not sound'

# A change of the unit at the place of the prefix must not go unseen.
DESTDIR=$work/stage cmake --install "$build" --component daemon --prefix /usr >"$work/stage.log"
grep -qx 'ExecStart=/usr/sbin/dsd' "$work/stage/usr/lib/systemd/system/dsd.service" ||
  fail 'the staged unit does not start /usr/sbin/dsd'
