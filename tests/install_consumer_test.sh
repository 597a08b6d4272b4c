#!/usr/bin/env bash
# A program built against the installed package, as a user of the library
# builds one: through pkg-config and through the CMake package. Both must
# carry the definitions the public structures need, name the platform, and
# link with -lpkey alone (libpkey.so brings its platform itself).
#
# usage: install_consumer_test.sh PREFIX LIBDIR CC
set -euo pipefail
prefix=$1 libdir=$2 cc=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/pkey-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT

cat > "$work/app.c" <<'C'
#include <stdio.h>
#include <sys/types.h>

#include <pkey_local.h>
#include <pkey_pubkey.h>

/* The definitions must reach every program that sees struct dirent. */
#if !defined(_FILE_OFFSET_BITS) || _FILE_OFFSET_BITS != 64 || !defined(_TIME_BITS) || _TIME_BITS != 64
#error "large-file and 64-bit time definitions are missing"
#endif
_Static_assert(sizeof(off_t) == 8, "off_t is not 64-bit");

int main(void) {
    printf("%u\n", PKEY_PUBKEY_GetMinKeyBits(PKEY_ALG_RSA));
    return 0;
}
C

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
[ "$(pkg-config --variable=platform pkey)" = host ] || { echo "FAIL: pkey.pc names no host platform"; exit 1; }
case " $(pkg-config --libs pkey) " in
  *pkey_host*) echo "FAIL: pkey.pc makes every program link the platform: $(pkg-config --libs pkey)"; exit 1 ;;
esac
# shellcheck disable=SC2046
"$cc" -o "$work/app-pc" "$work/app.c" $(pkg-config --cflags --libs pkey)
LD_LIBRARY_PATH="$prefix/$libdir" "$work/app-pc" > "$work/out-pc"

mkdir -p "$work/cmake"
cat > "$work/cmake/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(pkey REQUIRED)
if(NOT PKEY_PLATFORM STREQUAL "host")
  message(FATAL_ERROR "the package names platform '${PKEY_PLATFORM}'")
endif()
add_executable(app ../app.c)
target_link_libraries(app PRIVATE pkey::pkey)
CMAKE
cmake -S "$work/cmake" -B "$work/cmake/build" -DCMAKE_C_COMPILER="$cc" \
      -DCMAKE_PREFIX_PATH="$prefix" > "$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/cmake/build" > "$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
LD_LIBRARY_PATH="$prefix/$libdir" "$work/cmake/build/app" > "$work/out-cmake"

[ "$(cat "$work/out-pc")" = "$(cat "$work/out-cmake")" ] && [ -s "$work/out-pc" ] ||
  { echo "FAIL: the two builds disagree"; exit 1; }
echo "ok: pkg-config and CMake consumers build and run with -lpkey alone"
