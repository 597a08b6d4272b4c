#!/usr/bin/env bash
# Builds the libraries, pkeyctl and the unit tests for each Debian
# architecture named (arm64, armhf, s390x) with Debian's cross compiler, in
# $BUILD-cross-<arch>, and runs the tests there under qemu-user. Goes on past
# an architecture that fails, and ends with a summary: per architecture the
# tests passed and failed, the failing tests, and the time each step took.
# Settings from the environment (the Makefile passes its own): BUILD, JOBS,
# BUILD_TYPE, CMAKE_FLAGS.
set -uo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build}
JOBS=${JOBS:-$(nproc)}
BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo}
CMAKE_FLAGS=${CMAKE_FLAGS:-}
[ $# -gt 0 ] || set -- arm64 armhf s390x

duration() { printf '%dm%02ds' $(($1 / 60)) $(($1 % 60)); }

summary=()
passed_all=0
failed_all=0
status=0
for arch in "$@"; do
  dir=$BUILD-cross-$arch
  log=$dir/ctest.log
  echo "=== $arch: $dir"
  start=$SECONDS
  if ! scripts/cross-deps.sh "$arch" "$dir/sysroot"; then
    summary+=("$arch: no sysroot (scripts/cross-deps.sh failed)")
    status=1
    continue
  fi
  fetched=$SECONDS
  # CMAKE_FLAGS holds several words on purpose.
  # shellcheck disable=SC2086
  if ! cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$arch.cmake" \
         -DPKEY_SYSROOT="$PWD/$dir/sysroot" -DCMAKE_BUILD_TYPE="$BUILD_TYPE" $CMAKE_FLAGS ||
     ! cmake --build "$dir" -j"$JOBS"; then
    summary+=("$arch: build failed after $(duration $((SECONDS - fetched)))")
    status=1
    continue
  fi
  built=$SECONDS
  (cd "$dir" && ctest --output-on-failure -j"$JOBS") 2>&1 | tee "$log"
  [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
  tested=$SECONDS

  # ctest's closing line: "97% tests passed, 3 tests failed out of 100".
  read -r failed total < <(sed -nE 's/.*tests passed, ([0-9]+) tests? failed out of ([0-9]+).*/\1 \2/p' "$log")
  if [ -z "${total:-}" ]; then
    summary+=("$arch: ctest ran no test")
    status=1
    continue
  fi
  passed_all=$((passed_all + total - failed))
  failed_all=$((failed_all + failed))
  summary+=("$(printf '%-6s %4d tests, %4d pass, %3d fail   sysroot %s, configure+build %s, tests %s' \
                 "$arch:" "$total" $((total - failed)) "$failed" "$(duration $((fetched - start)))" \
                 "$(duration $((built - fetched)))" "$(duration $((tested - built)))")")
  while read -r failing; do
    summary+=("         failed: $failing")
  done < <(sed -n '/The following tests FAILED:/,$ s/^[[:space:]]*[0-9]* - \(.*\)$/\1/p' "$log")
done

echo
echo "Cross-architecture unit tests under qemu-user:"
printf '  %s\n' "${summary[@]}"
echo "test-cross: $passed_all passed, $failed_all failed"
exit $status
