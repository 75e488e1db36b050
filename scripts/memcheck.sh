#!/usr/bin/env bash
# Runs the unit tests of the plain C++ parts under valgrind: a value that was never set must decide
# nothing, and AddressSanitizer does not see those. Takes some ten minutes. Exit status 1 with a
# fault.
#
#   scripts/memcheck.sh [BUILD]      by default build
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1

build=${1:-build}
# Tests that bring an allocator of their own are not for valgrind, which has one, too.
tests=(InstallerCompressorTest KpimFilesTest ProcessLookupTest SettingsEngineTest)
failed=0
for test in "${tests[@]}"; do
    if output=$(timeout 900 valgrind --quiet --error-exitcode=9 --leak-check=no --track-origins=yes \
        --suppressions=tests/memcheck.supp \
        "$build/tests/$test" --gtest_brief=1 2>&1); then
        echo "$test: no fault"
    else
        failed=1
        echo "$test:"
        tail -n 60 <<< "$output"
    fi
done
exit "$failed"
