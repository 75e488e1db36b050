#!/usr/bin/env bash
# Runs the tests, after installing what they need and building.
#
#   scripts/test.sh              every test: both builds, sanitizers, fuzz targets, packages, style
#   scripts/test.sh quick        what takes a minute, in the release build
#   scripts/test.sh --coverage   instead which lines of the product the tests reach
#
# All tests run, also after a failure; then each failure and the reason of each skip is listed. The
# last line counts them, and the exit status is not 0 when one failed. With an SDK's folder in
# KP_MACOS_SDK the macOS side is checked too; Debian has no such SDK. Results are left in
# build/test-results and build/*/test-results.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1

mode=${1-all}
case $mode in
    all | quick | --coverage) ;;
    *)
        echo "usage: scripts/test.sh [quick | --coverage]" >&2
        exit 2
        ;;
esac

results=$PWD/build/test-results
rm -rf build/*/test-results "$results"
mkdir -p "$results" || exit 1

# step NAME COMMAND...: one test that passes when the command does. Its output is shown when it fails.
step() {
    local name=$1 status=0 start=$SECONDS
    shift
    echo "== $name"
    "$@" < /dev/null > "$results/$name.log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || tail -n 60 "$results/$name.log"
    printf '%s\t%s\n' "$name" "$status" >> "$results/steps.tsv"
    echo "   $((SECONDS - start)) s"
    return "$status"
}

build() {
    cmake --preset "$1" -DKP_WERROR=ON && cmake --build --preset "$1" -j "$(nproc)" -- -k 0
}

# Many tests wait more than they compute.
jobs=$((2 * $(nproc)))

# run_tests PRESET: the tests of ctest, which are counted one by one.
run_tests() {
    local status=0 start=$SECONDS
    echo "== tests"
    ctest --preset "$1" -j "$jobs" --output-junit "$results/ctest.xml" < /dev/null 2>&1 |
        tee "$results/ctest.log" | grep --line-buffered -v '^ *Start ' || status=${PIPESTATUS[0]}
    printf 'ctest\t%s\n' "$status" >> "$results/steps.tsv"
    echo "   $((SECONDS - start)) s"
}

# Instrumented programs write a file at their end, which fails some tests, so results are ignored
# here.
coverage() {
    local profiles=$PWD/build/coverage/profiles
    rm -rf "$profiles"
    mkdir -m 1777 "$profiles"
    LLVM_PROFILE_FILE=$profiles/%p-%m.profraw ctest --test-dir build/coverage -j "$jobs" \
        < /dev/null > "$results/coverage-tests.log" 2>&1
    step coverage scripts/coverage.py build/coverage "$profiles" --uncovered
    cat "$results/coverage.log"
}

step bootstrap scripts/bootstrap.sh
case $mode in
    --coverage)
        if step build-coverage build coverage; then coverage; fi
        ;;
    quick)
        step build-release build release
        run_tests quick
        ;;
    all)
        step build-release build release
        step build-asan build asan
        run_tests all
        if [ -n "${KP_MACOS_SDK-}" ]; then step macos scripts/check-macos.sh --sdk "$KP_MACOS_SDK" --tests; fi
        ;;
esac
exec /usr/bin/python3 scripts/summarize_tests.py "$results" build/release/test-results \
    build/asan/test-results
