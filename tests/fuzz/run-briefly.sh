#!/usr/bin/env bash
# Runs a fuzz target for ctest: its seeds, in the order of their names, then inputs made from them,
# RUNS executions in total, with the same random numbers each time. The inputs that libFuzzer keeps
# are removed afterwards: no run depends on an earlier one, and the seeds stay as they are.
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
# libFuzzer mutates with numbers that it has seen compared, also addresses, so these are kept the
# same if the system allows it. Its actions that depend on the clock are off.
command=("$target")
if setarch -R true 2> /dev/null; then command=(setarch -R "$target"); fi
"${command[@]}" -seed=1 -runs="$runs" -reload=0 -max_len=4096 -timeout=60 \
    "-artifact_prefix=$prefix" "-dict=$dictionary" \
    "-seed_inputs=$(IFS=, && echo "${seeds[*]}")" "$kept"
