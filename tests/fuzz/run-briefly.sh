#!/usr/bin/env bash
# What ctest runs of a fuzz target: its seeds, in the order of their names, then inputs made of them, RUNS
# executions together, with the same random numbers each time. What libFuzzer keeps of those inputs is
# gone afterwards: no run depends on one before it, and the seeds stay as they are.
#
#   tests/fuzz/run-briefly.sh TARGET RUNS CORPUS DICTIONARY PREFIX
#
# An input that shows a fault is left in a file whose name begins with PREFIX.
set -euo pipefail

target=$1 runs=$2 corpus=$3 dictionary=$4 prefix=$5

kept=$(mktemp -d)
trap 'rm -rf "$kept"' EXIT
export LC_ALL=C  # sorts the names
shopt -s nullglob
seeds=("$corpus"/*)
if [ ${#seeds[@]} -eq 0 ] || [ ${#seeds[@]} -ge "$runs" ]; then
    echo "$corpus: ${#seeds[@]} seeds, which $runs executions must be more than" >&2
    exit 1
fi
# libFuzzer mutates with numbers that it has seen compared, addresses too, so those stay the same where
# that is allowed; and what it does by the clock, it does not do here.
command=("$target")
if setarch -R true 2> /dev/null; then command=(setarch -R "$target"); fi
"${command[@]}" -seed=1 -runs="$runs" -reload=0 -max_len=4096 -timeout=60 \
    "-artifact_prefix=$prefix" "-dict=$dictionary" \
    "-seed_inputs=$(IFS=, && echo "${seeds[*]}")" "$kept"
