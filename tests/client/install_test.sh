#!/usr/bin/env bash
# The installed client library serves a C11 program, found through pkg-config and through CMake, as a
# shared library and as an archive.
#
#   install_test.sh build_folder source_folder work_folder cc cxx [sanitize_flag]
set -eu -o pipefail

build=$1
source=$2
work=$3
cc=$4
cxx=$5
sanitize=${6:-}

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --component client --prefix "$work/prefix" >"$work/install.log"

pc=$(find "$work/prefix" -name ds_client.pc)
export PKG_CONFIG_PATH=${pc%/*}
lib=${PKG_CONFIG_PATH%/pkgconfig}
export LD_LIBRARY_PATH=$lib

# A handle that looks for nobody, without reconnect, tells so: the library was found and works.
cat >"$work/consumer.c" <<'SOURCE'
#include <ds_client.h>
#include <stdio.h>

int main(void) {
    ds_client_options_t options = {0};
    options.size = sizeof options;
    options.socket = "/nowhere/ds.sock";
    options.flags = DS_CLIENT_NO_RECONNECT;
    ds_client_handle_t *handle = NULL;
    if (ds_client_abi() != DS_CLIENT_ABI) return 1;
    if (ds_client_create(&options, &handle) != DS_CLIENT_OK) return 2;
    const int result = ds_client_wait_connected(handle, 10000);
    ds_client_destroy(handle);
    printf("%s %s\n", ds_client_version(), ds_client_strerror(result));
    return 0;
}
SOURCE
expected="$(pkg-config --modversion ds_client) nobody listens there"

strict=(-Wall -Wextra -Wpedantic -Werror)
link=$cc
[ -z "$sanitize" ] || link=$cxx
expect() { # program
    local text
    text=$("$@")
    [ "$text" = "$expected" ] || { echo "$1 printed: $text" >&2; exit 1; }
}

read -ra cflags <<<"$(pkg-config --cflags ds_client)"
read -ra libs <<<"$(pkg-config --libs ds_client)"
read -ra static_libs <<<"$(pkg-config --libs --static ds_client | sed 's/-lds_client//')"

"$cc" -std=c11 "${strict[@]}" ${sanitize:+"$sanitize"} "${cflags[@]}" -c "$work/consumer.c" \
    -o "$work/consumer.o"
echo '#include <ds_client.h>' >"$work/header.cpp"
"$cxx" -std=c++20 "${strict[@]}" "${cflags[@]}" -fsyntax-only "$work/header.cpp"

"$link" ${sanitize:+"$sanitize"} "$work/consumer.o" "${libs[@]}" -o "$work/shared"
expect "$work/shared"
[[ $(readelf -d "$work/shared") == *'[libds_client.so.1]'* ]]
"$link" ${sanitize:+"$sanitize"} "$work/consumer.o" "$lib/libds_client.a" "${static_libs[@]}" \
    -o "$work/static"
expect "$work/static"

mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES C CXX)
find_package(ds_client 0.1 REQUIRED)
add_executable(consumer ../consumer.c)
target_link_libraries(consumer PRIVATE ds::client)
if(SANITIZE)
  target_compile_options(consumer PRIVATE ${SANITIZE})
  target_link_options(consumer PRIVATE ${SANITIZE})
  set_target_properties(consumer PROPERTIES LINKER_LANGUAGE CXX)
endif()
PROJECT
cmake -G Ninja -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DSANITIZE="$sanitize" \
    >"$work/project.log"
cmake --build "$work/project/build" >>"$work/project.log"
expect "$work/project/build/consumer"

# The example as its README says.
example=("$cc" -std=c11 -D_POSIX_C_SOURCE=200809L "${strict[@]}" "$source/examples/publish_watch.c")
[ -n "$sanitize" ] || "${example[@]}" "${cflags[@]}" "${libs[@]}" -o "$work/publish_watch"
