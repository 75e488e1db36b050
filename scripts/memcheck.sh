#!/usr/bin/env bash
# Runs all unit tests except one under valgrind, which finds decisions on uninitialized values;
# AddressSanitizer does not. Takes some ten minutes. Exit status 1 with a fault.
#
#   scripts/memcheck.sh [BUILD]      by default build/release
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1

build=${1:-build/release}

# Measures how much memory decoding takes, to which valgrind adds its own.
left_out=InstallerCompressorMemoryTest

mapfile -t tests < <(find "$build/tests" -maxdepth 1 -type f -executable -printf '%f\n' |
    grep -vx "$left_out" | sort)
if [ ${#tests[@]} -eq 0 ]; then
    echo "scripts/memcheck.sh: no unit tests in $build" >&2
    exit 1
fi

# Foundation writes into the home folder: not into the home of the user who tests.
HOME=$(mktemp -d) || exit 1
export HOME
trap 'rm -rf "$HOME"' EXIT

# Two tests have their own allocation functions, which valgrind must not replace.
valgrind=(valgrind --quiet --error-exitcode=9 --leak-check=no --track-origins=yes
    --soname-synonyms=somalloc=nouserintercepts --suppressions=tests/memcheck.supp)
fault_kinds='(Conditional jump|Use of uninit|Syscall param|Invalid |Jump to|Mismatched|Source and dest)'
failed=0
for test in "${tests[@]}"; do
    # A fault in a child that is not waited for shows only in the output.
    if output=$(timeout 900 "${valgrind[@]}" "$build/tests/$test" --gtest_brief=1 < /dev/null 2>&1) &&
        ! grep -qE "^==[0-9]+== $fault_kinds" <<< "$output"; then
        echo "$test: no fault"
    else
        failed=1
        echo "$test:"
        tail -n 60 <<< "$output"
    fi
done
exit "$failed"
