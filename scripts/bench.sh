#!/usr/bin/env bash
# Measures packing against 7zz and xz, extraction against these and bsdtar, on the same trees in one
# run, their growth, the fixed cost of a run, and settings files. Prints tables and which goals were
# met. Takes some 35 minutes; --quick takes one or two. All options go to benchmarks/bench.py
# (--help lists them).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
scripts/bootstrap.sh
cmake --preset bench > /dev/null
cmake --build --preset bench
exec /usr/bin/python3 benchmarks/bench.py --build build/bench "$@"
