#!/usr/bin/env bash
# Every test: both builds, unit and system tests in both, the fuzz targets for a moment, format,
# clang-tidy, shellcheck, and with an SDK's folder in KP_MACOS_SDK the check of the macOS side. With
# --coverage instead: unit and system tests in an instrumented build, and which lines of the product
# they reach.
# All of them run, also after a failure; then each failure and the reason of each skip is listed. The
# last line counts them, the exit status is not 0 when one failed.
# Results are left in build/test-results.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1

results=$PWD/build/test-results
rm -rf "$results"
mkdir -p "$results/home" || exit 1
record=$results/runs.tsv

export PYTHONDONTWRITEBYTECODE=1
# Leaks are told apart by their whole stacks, see lsan.supp.
export ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# check NAME COMMAND...: one test that passes when the command does.
check() {
    local name=$1 status=0
    shift
    echo "== $name"
    "$@" < /dev/null > "$results/$name.log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || tail -n 60 "$results/$name.log"
    printf 'check\t%s\t%s\n' "$name" "$status" >> "$record"
    return "$status"
}

# suite NAME COMMAND...: tests that the command reports in NAME.xml.
suite() {
    local name=$1 status=0
    shift
    echo "== $name"
    timeout 1200 "$@" < /dev/null > "$results/$name.log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || tail -n 60 "$results/$name.log"
    printf 'suite\t%s\t%s\n' "$name" "$status" >> "$record"
}

build() {
    cmake --preset "$1" -DKP_WERROR=ON && cmake --build --preset "$1" -j "$(nproc)"
}

# unit_tests NAME BUILD: every test that ctest knows in a build folder. A GoogleTest executable,
# which lies in tests/ under the test's name, is a suite of its own; the rest are one suite.
unit_tests() {
    local name executable suites=() others
    while read -r name; do
        executable=$2/tests/$name
        if [ ! -x "$executable" ]; then continue; fi
        suites+=("$name")
        # Foundation writes into the home folder: not into that of whoever tests.
        suite "unit-$1-$name" env HOME="$results/home" "$executable" \
            --gtest_brief=1 --gtest_output="xml:$results/unit-$1-$name.xml"
    done < <(ctest --test-dir "$2" --show-only | sed -n 's/^ *Test *#[0-9]*: //p')
    if [ ${#suites[@]} -eq 0 ]; then check "unit-$1" false; fi
    others=(--test-dir "$2" --exclude-regex "^($(IFS='|' && echo "${suites[*]}"))\$")
    if ! ctest "${others[@]}" --show-only | grep -qx 'Total Tests: 0'; then
        suite "unit-$1-others" ctest "${others[@]}" --output-on-failure \
            --output-junit "$results/unit-$1-others.xml"
    fi
}

# system_tests NAME BUILD
system_tests() {
    suite "system-$1" /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/system tests/scripts \
        --build "$2" --junit-xml="$results/system-$1.xml" -o junit_family=xunit2
}

# shellcheck disable=SC2046  # none of the names has blanks
check_scripts() {
    shellcheck $(git ls-files '*.sh') .ci/run
}

# Which lines of the product the tests reach. The instrumented programs write a file of their own at
# their end, which some tests notice, so here no test is judged.
coverage() {
    local profiles=$PWD/build/coverage/profiles executable
    rm -rf "$profiles"
    mkdir "$profiles"
    chmod 1777 "$profiles"
    export LLVM_PROFILE_FILE=$profiles/%p-%m.profraw
    {
        for executable in build/coverage/tests/*Test; do
            HOME=$results/home timeout 600 "$executable" --gtest_brief=1
        done
        timeout 1200 /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/system tests/scripts \
            --build build/coverage
    } < /dev/null > "$results/coverage-tests.log" 2>&1
    unset LLVM_PROFILE_FILE
    check coverage scripts/coverage.py build/coverage "$profiles" --uncovered
    cat "$results/coverage.log"
}

case ${1-} in
    '' | --coverage) ;;
    *)
        echo "usage: scripts/test.sh [--coverage]" >&2
        exit 2
        ;;
esac

check bootstrap scripts/bootstrap.sh
if [ "${1-}" = --coverage ]; then
    if check build-coverage build coverage; then coverage; fi
    exec /usr/bin/python3 scripts/summarize_tests.py "$results"
fi
if check build-release build release; then
    unit_tests release build/release
    system_tests release build/release
fi
if check build-asan build asan; then
    unit_tests asan build/asan
    system_tests asan build/asan
fi
if check build-fuzz build fuzz; then
    suite fuzz ctest --test-dir build/fuzz/tests/fuzz --output-on-failure \
        --output-junit "$results/fuzz.xml"
fi
check format scripts/format.sh --check
check lint scripts/lint.sh build/release
check shellcheck check_scripts
# No SDK comes with a Debian.
if [ -n "${KP_MACOS_SDK-}" ]; then check macos scripts/check-macos.sh --sdk "$KP_MACOS_SDK"; fi

exec /usr/bin/python3 scripts/summarize_tests.py "$results"
