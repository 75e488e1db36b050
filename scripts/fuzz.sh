#!/usr/bin/env bash
# Runs the fuzz targets for long, all of the named ones at the same time.
#
#   scripts/fuzz.sh [SECONDS [TARGET...]]      by default 1800 seconds and every target
#
# Prints, for each, the executions, the coverage, the processor time, and what it found. New inputs
# stay in build/asan/found/TARGET. Exit status 1 when a target found a fault.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-1800}
shift || true
case $seconds in
    '' | *[!0-9]*)
        echo "usage: scripts/fuzz.sh [SECONDS [TARGET...]]" >&2
        exit 2
        ;;
esac

if ! log=$(cmake --preset asan 2>&1 && cmake --build --preset asan -j "$(nproc)" --target fuzzers 2>&1); then
    echo "$log" >&2
    exit 1
fi
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for executable in build/asan/bin/fuzz/fuzz_*; do targets+=("${executable##*/}"); done
fi

found=$PWD/build/asan/found
export ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp:print_suppressions=0
pids=()
set -m  # Each target gets its own process group.
# shellcheck disable=SC2317  # the trap calls it
stop() {
    # The shell and the target that it waits for.
    for pid in "${pids[@]}"; do kill -- "-$pid" 2> /dev/null || true; done
}
trap stop EXIT

for target in "${targets[@]}"; do
    mkdir -p "$found/$target"
    # A copy, so that the build can go on meanwhile.
    cp "build/asan/bin/fuzz/$target" "$found/$target.run"
    # shellcheck disable=SC2016  # the inner shell's
    (TIMEFORMAT='cpu %U %S'
        time nice -n 10 "$found/$target.run" -max_total_time="$seconds" -max_len=4096 -timeout=25 \
            -rss_limit_mb=2560 -print_final_stats=1 -verbosity=1 \
            "-artifact_prefix=$found/$target-" "-dict=tests/fuzz/$target.dict" \
            "$found/$target" "tests/fuzz/corpus/$target") > "$found/$target.log" 2>&1 < /dev/null &
    pids+=($!)
done

failed=0
printf '%-22s %12s %10s %8s %8s %9s  %s\n' target executions per-second edges inputs cpu-s result
for i in "${!targets[@]}"; do
    target=${targets[$i]}
    result="nothing found"
    if ! wait "${pids[$i]}"; then
        result="FOUND: see $found/$target.log"
        failed=1
    fi
    log=$found/$target.log
    stat() { sed -n "s/^stat::$1: *//p" "$log" | tail -1; }
    executions=$(stat number_of_executed_units)
    per_second=$(stat average_exec_per_sec)
    edges=$(grep -o ' cov: [0-9]*' "$log" | tail -1 | tr -dc '0-9' || true)
    cpu=$(awk '/^cpu /{print $2 + $3}' "$log")
    inputs=$(find "$found/$target" -type f | wc -l)
    printf '%-22s %12s %10s %8s %8s %9s  %s\n' "$target" "$executions" "$per_second" "$edges" \
        "$inputs" "$cpu" "$result"
done
pids=()
exit "$failed"
