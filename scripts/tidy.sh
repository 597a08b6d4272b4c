#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy over pkey's own sources: the
# library modules, the host platform, pkeyctl and the example server. Any
# finding fails the run (.clang-tidy makes every warning an error).
#
#   scripts/tidy.sh [build-dir] [jobs]
#
# The build directory supplies compile_commands.json; it is configured first
# when it has none. The tests, fuzz targets and benchmarks are left out: they
# are mostly gtest and benchmark macros, which treble the run's time for
# findings of no weight there.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd -P)
build=${1:-$root/build}
jobs=${2:-$(nproc 2>/dev/null || echo 2)}

if [ ! -f "$build/compile_commands.json" ]; then
  cmake -S "$root" -B "$build" >/dev/null
fi

# Sources of ours, by folder, as absolute paths in the compilation database.
root_re=$(printf '%s' "$root" | sed 's/[][\\.*^$(){}?+|]/\\&/g')
sources="^$root_re/(util|pubkey|ec|fs|local|peer|cfgmng|backup|platform/host|tools|examples)/.*\.cpp$"

start=$(date +%s)
# GCC's own warning flags reach clang-tidy through the database; clang does
# not know some of them (-Wno-restrict), which is no finding of ours.
# run-clang-tidy echoes each command and clang-tidy counts the warnings it
# kept quiet in system headers; only the findings are shown, in colour on a
# terminal only.
colour='s/\x1b\[[0-9;]*m//g'
if [ -t 1 ]; then colour=''; fi
status=0
run-clang-tidy -quiet -j "$jobs" -p "$build" -extra-arg=-Wno-unknown-warning-option "$sources" 2>&1 |
  sed -E -e "$colour" -e '/^[^ ]*clang-tidy(-[0-9]+)? /d' \
      -e '/^(\x1b\[[0-9;]*m)*[0-9]+ (warnings?|errors?)( and [0-9]+ errors?)? generated\.$/d' || status=$?
echo "tidy: $(( $(date +%s) - start )) s over the sources under $root" >&2
if [ "$status" -ne 0 ]; then
  echo "tidy: clang-tidy found problems (see above)" >&2
fi
exit "$status"
