#!/usr/bin/env bash
# The units, the user and the folder are sound: by systemd's own tools where they are, and every
# directive stands once.
#
#   units_test.sh etc_folder dsd work_folder
set -eu -o pipefail

etc=$1
dsd=$2
work=$3

rm -rf "$work"
mkdir -p "$work/units"
sed "s|=/usr/sbin/dsd|=$dsd|; /^Documentation=/d" "$etc/systemd/dsd.service" >"$work/units/dsd.service"
sed '/^Documentation=/d' "$etc/systemd/dsd.socket" >"$work/units/dsd.socket"

fail() { echo "$*" >&2; exit 1; }
has() { grep -qx -- "$2" "$work/units/$1" || fail "$1 lacks $2"; }

# What the daemon relies on.
for line in Type=notify User=ds RuntimeDirectory=ds RuntimeDirectoryPreserve=yes LogsDirectory=ds \
  ConfigurationDirectory=ds RestartPreventExitStatus=2 'ExecReload=/bin/kill -HUP $MAINPID'; do
  has dsd.service "$line"
done
grep -q '^WatchdogSec=' "$work/units/dsd.service" || fail 'dsd.service has no watchdog'
has dsd.socket ListenStream=/run/ds/ds.sock

for unit in "$work"/units/*; do
  repeated=$(sed -n 's/^\([A-Za-z]*\)=.*/\1/p' "$unit" | sort | uniq -d)
  [ -z "$repeated" ] || fail "${unit##*/} says twice: $repeated"
  ! grep -vE '^(#.*|\[[A-Z][a-z]+\]|[A-Z][A-Za-z]+=.*|)$' "$unit" || fail "${unit##*/}: lines above"
done

if command -v systemd-analyze >/dev/null; then
  text=$(systemd-analyze verify "$work/units/dsd.service" "$work/units/dsd.socket" 2>&1) || fail "$text"
  [ -z "$text" ] || fail "$text"
fi
if command -v systemd-sysusers >/dev/null; then
  mkdir -p "$work/root/etc"
  systemd-sysusers --root="$work/root" "$(realpath "$etc/sysusers.d/dsd.conf")" 2>"$work/sysusers.log" ||
    fail "$(cat "$work/sysusers.log")"
  grep -q '^ds:' "$work/root/etc/passwd" || fail 'there is no user ds'
  grep -q '^ds:' "$work/root/etc/group" || fail 'there is no group ds'
fi
