#!/usr/bin/env bash
# run.sh BUILD_DIR SECONDS [TARGET...] - runs the fuzz targets of a PKEY_FUZZ
# build, each for SECONDS, and fails on any finding.
#
# First the seed corpora are (re)made from real keys by fuzz_seeds into
# BUILD_DIR/fuzz-corpus/<target>/, next to the units earlier runs found, with
# their key files made in the store BUILD_DIR/fuzz-store, which the key_file
# target then uses ($FUZZ_STORE) so that the seeds decipher. The checked-in
# seeds of fuzz/corpus/<target>/ are read too. Crash, leak and timeout inputs
# go to BUILD_DIR/fuzz-artifacts/, each run's log to BUILD_DIR/fuzz-logs/.
#
# Environment: FUZZ_JOBS targets at once (default 1); FUZZ_RUNS stops a
# target after that many executions if its time is not up first.
set -u

usage() {
    echo "usage: $0 BUILD_DIR SECONDS [TARGET...]" >&2
    exit 2
}
[ $# -ge 2 ] || usage
[[ "$2" =~ ^[0-9]+$ ]] || usage

src=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "$1" 2>/dev/null && pwd) || { echo "$0: no build directory $1" >&2; exit 2; }
seconds=$2
shift 2
all_targets=(base64_blob ecdsa_blob peer_text keycode_entry store_record key_file agent_message)
targets=("${@:-${all_targets[@]}}")
jobs=${FUZZ_JOBS:-1}
runs=${FUZZ_RUNS:-}

for t in "${targets[@]}"; do
    [ -x "$build/fuzz/fuzz_$t" ] || { echo "$0: $build/fuzz/fuzz_$t is not built" >&2; exit 2; }
done

corpus=$build/fuzz-corpus
artifacts=$build/fuzz-artifacts
logs=$build/fuzz-logs
export FUZZ_STORE=$build/fuzz-store
mkdir -p "$corpus" "$artifacts" "$logs" "$FUZZ_STORE"
if ! "$build/fuzz/fuzz_seeds" "$FUZZ_STORE" "$corpus"; then
    echo "$0: making the seed corpora failed" >&2
    exit 1
fi

# One target: libFuzzer over its corpus for the time given, then a summary
# line from its final statistics and last status line.
run_target() {
    local t=$1 log=$logs/$1.log
    local dirs=("$corpus/$t")
    [ -d "$src/corpus/$t" ] && dirs+=("$src/corpus/$t")
    local opts=(-max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=2048 -timeout=10
                -detect_leaks=1 -artifact_prefix="$artifacts/$t-")
    [ -f "$src/$t.dict" ] && opts+=(-dict="$src/$t.dict")
    [ -n "$runs" ] && opts+=(-runs="$runs")
    # Key codes reach past the 4096 digits the entry takes, so its refusal is fuzzed too.
    [ "$t" = keycode_entry ] && opts+=(-max_len=4200)
    mkdir -p "$corpus/$t"
    "$build/fuzz/fuzz_$t" "${opts[@]}" "${dirs[@]}" >"$log" 2>&1
    local rc=$?
    local execs speed status cov ft verdict=ok
    final_stat() { sed -n "s/^stat::$1: *//p" "$log" | tail -n 1; }
    execs=$(final_stat number_of_executed_units)
    speed=$(final_stat average_exec_per_sec)
    status=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$status")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$status")
    if [ $rc -ne 0 ] || grep -qE '^==[0-9]+==ERROR|^SUMMARY: |Test unit written to|property violated' "$log"; then
        verdict="FAILED (exit $rc, see $log)"
    fi
    printf '%-14s execs %-10s exec/s %-7s cov %-6s ft %-7s corpus %-6s %s\n' "$t" "${execs:-?}" \
        "${speed:-?}" "${cov:-?}" "${ft:-?}" "$(find "$corpus/$t" -type f | wc -l)" "$verdict" \
        >"$logs/$t.summary"
    [ "$verdict" = ok ]
}

failed=0
running=0
for t in "${targets[@]}"; do
    if [ "$running" -ge "$jobs" ]; then
        wait -n || failed=1
        running=$((running - 1))
    fi
    run_target "$t" &
    running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
    wait -n || failed=1
    running=$((running - 1))
done

for t in "${targets[@]}"; do cat "$logs/$t.summary"; done
if [ $failed -ne 0 ]; then
    echo "fuzzing found a problem: inputs are in $artifacts" >&2
    exit 1
fi
