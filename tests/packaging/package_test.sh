#!/usr/bin/env bash
# The Debian packages hold what they should, and their programs work when they are unpacked.
#
#   package_test.sh build_folder work_folder
set -eu -o pipefail

build=$1
work=$2
source=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")

rm -rf "$work"
mkdir -p "$work"
"$source/tools/package.sh" "$build" "$work" >"$work/package.log"

fail() { echo "$*" >&2; exit 1; }
package() { echo "$work/$1"_*.deb; }
content() { dpkg-deb --fsys-tarfile "$(package "$1")" | tar -t | grep -v '/$' | sed 's|^\./||' | sort; }
field() { dpkg-deb --field "$(package "$1")" "$2"; }

expect_content() { # <package> <file>...: patterns, one for each file
  local name=$1 file pattern files
  shift
  mapfile -t files < <(content "$name")
  [ ${#files[@]} -eq $# ] || fail "$name: ${#files[@]} files, not $#:" "${files[@]}"
  for pattern in "$@"; do
    # shellcheck disable=SC2053
    for file in "${files[@]}"; do [[ $file == $pattern ]] && continue 2; done
    fail "$name has no $pattern"
  done
}

daemon_files=(etc/ds/ds.toml usr/bin/dsctl usr/sbin/dsd 'usr/lib/systemd/system/dsd.service'
  usr/lib/systemd/system/dsd.socket usr/lib/sysusers.d/dsd.conf usr/lib/tmpfiles.d/dsd.conf
  usr/share/doc/directory_service/examples/ds.toml usr/share/man/man1/dsctl.1.gz
  usr/share/man/man5/ds.toml.5.gz usr/share/man/man7/dsd-protocol.7.gz usr/share/man/man8/dsd.8.gz
  usr/share/bash-completion/completions/dsctl)
expect_content directory-service "${daemon_files[@]}"
expect_content libds-client1 'usr/lib/*libds_client.so.1' 'usr/lib/*libds_client.so.1.[0-9]*'
expect_content libds-client-dev usr/include/ds_client.h 'usr/lib/*libds_client.a' \
  'usr/lib/*libds_client.so' 'usr/lib/*pkgconfig/ds_client.pc' \
  'usr/lib/*cmake/ds_client/ds_clientConfig.cmake' \
  'usr/lib/*cmake/ds_client/ds_clientConfigVersion.cmake' \
  'usr/lib/*cmake/ds_client/ds_clientTargets.cmake' \
  'usr/lib/*cmake/ds_client/ds_clientTargets-*.cmake'

for name in directory-service libds-client1; do
  [[ $(field "$name" Depends) == *libc6* ]] || fail "$name does not depend on the C library"
done
[[ $(field directory-service Depends) == *libsystemd0* ]] || fail 'the daemon needs libsystemd0'
[[ $(field libds-client1 Depends) == *libprotobuf-lite* ]] || fail 'the library needs protobuf'
[ "$(field libds-client-dev Depends)" = "libds-client1 (= $(field libds-client1 Version))" ] ||
  fail 'the development files are of another version'

# Files belong to root, nobody else may write them.
dpkg-deb --contents "$(package directory-service)" | awk '
  $2 != "root/root" || $1 ~ /^.....w|^........w/ { print; bad = 1 } END { exit bad }' ||
  fail 'the files above are not as they should be'

dpkg-deb --extract "$(package directory-service)" "$work/root"
"$work/root/usr/sbin/dsd" --check-config "$work/root/etc/ds/ds.toml" >/dev/null
[[ $("$work/root/usr/bin/dsctl" --version) == 'dsctl '* ]] || fail 'the unpacked dsctl does not run'
dpkg-deb --control "$(package directory-service)" "$work/control"
for script in postinst prerm postrm; do
  sh -n "$work/control/$script"
done
grep -qx /etc/ds/ds.toml "$work/control/conffiles" || fail 'the configuration would be overwritten'
(cd "$work/root" && md5sum --quiet -c "$work/control/md5sums")
