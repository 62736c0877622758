#!/usr/bin/env bash
# Makes the Debian packages directory-service, libds-client1 and libds-client-dev.
# usage: tools/package.sh [BUILD [OUT]]
#   BUILD  a tree that is built already; without it, one is built for /usr
#   OUT    where the packages go, build/packages without it
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -gt 0 ]; then
  build=$1
else
  build=build/package
  echo "package: building"
  mkdir -p build
  cmake --preset release -B "$build" -DCMAKE_INSTALL_PREFIX=/usr >build/package.log
  ninja -C "$build" --quiet dsd dsctl ds_client ds_client_shared
fi
out=$(realpath -m "${2:-build/packages}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")-1
architecture=$(dpkg --print-architecture)
section=misc

# ---- the trees ----

install_component() { # <component> <tree>
  DESTDIR=$2 cmake --install "$build" --component "$1" --prefix /usr >"$work/install.log" ||
    { cat "$work/install.log" >&2; exit 1; }
}

daemon=$work/directory-service library=$work/libds-client1 development=$work/libds-client-dev
install_component daemon "$daemon"
install_component client "$development"
strip --strip-unneeded "$daemon"/usr/sbin/dsd "$daemon"/usr/bin/dsctl
install -D -m 644 etc/ds.toml "$daemon/etc/ds/ds.toml"
find "$daemon/usr/share/man" -type f -exec gzip -9n {} +

# The library by its own name is for programs that run; what is left is for those that are built.
shared=$(find "$development" -name 'libds_client.so.1' -printf '%h\n')
mkdir -p "$library/${shared#"$development"/}"
mv "$shared"/libds_client.so.1* "$library/${shared#"$development"/}/"
find "$library" -type f -exec strip --strip-unneeded {} +
find "$development" -name '*.a' -exec strip --strip-debug {} +

# ---- what dpkg wants to know ----

mkdir "$work/debian"
printf 'Source: directory-service\n\nPackage: any\nArchitecture: any\n' >"$work/debian/control"
shared_libraries() { # <file>...: the packages that the files need
  (cd "$work" && dpkg-shlibdeps -O "$@" 2>"$work/shlibdeps.log" | sed -n 's/^shlibs:Depends=//p') ||
    { cat "$work/shlibdeps.log" >&2; exit 1; }
}

describe() { # <tree> <depends> <summary> <text> [<field>...]
  local tree=$1 name=${1##*/}
  mkdir -p "$tree/DEBIAN"
  {
    printf 'Package: %s\nSource: directory-service\nVersion: %s\n' "$name" "$version"
    printf 'Architecture: %s\nSection: %s\nPriority: optional\n' "$architecture" "$section"
    printf 'Maintainer: Directory service developers <root@localhost>\n'
    printf 'Installed-Size: %s\n' "$(du -k -s --apparent-size "$tree" | cut -f1)"
    printf 'Depends: %s\n' "$2"
    [ $# -lt 5 ] || printf '%s\n' "${@:5}"
    printf 'Description: %s\n %s\n' "$3" "$4"
  } >"$tree/DEBIAN/control"
  (cd "$tree" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z |
    xargs -0 md5sum >DEBIAN/md5sums)
}

describe "$daemon" "$(shared_libraries "$daemon/usr/sbin/dsd" "$daemon/usr/bin/dsctl"), systemd" \
  'directory of services: daemon and command line' \
  'Processes publish service instances and watch names; every change is told at once.'
echo /etc/ds/ds.toml >"$daemon/DEBIAN/conffiles"
install -m 755 etc/debian/postinst etc/debian/prerm etc/debian/postrm "$daemon/DEBIAN/"

describe "$library" "$(shared_libraries "$(find "$library" -type f -name 'libds_client.so.1*')")" \
  'directory of services: client library' 'The shared library of clients in C and C++.' \
  'Multi-Arch: same'
echo "libds_client 1 libds-client1 (>= ${version%-*})" >"$library/DEBIAN/shlibs"
echo 'activate-noawait ldconfig' >"$library/DEBIAN/triggers"

describe "$development" "libds-client1 (= $version)" \
  'directory of services: files to build clients with' \
  'Header, archive, and what pkg-config and CMake need to find the client library.' \
  'Recommends: libprotobuf-dev'

mkdir -p "$out"
for tree in "$daemon" "$library" "$development"; do
  chmod -R u+rwX,go+rX,go-w "$tree"
  dpkg-deb --root-owner-group --build "$tree" "$out" | sed 's/^dpkg-deb: //'
done
