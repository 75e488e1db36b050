#!/usr/bin/env bash
# Measures extraction and packing against 7zz, xz with tar, and bsdtar, on the same trees
# in one run, and prints a table of ratios. Takes some 20 minutes; --quick takes about two.
# All options go to benchmarks/compare.py (--help tells them).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
scripts/bootstrap.sh
cmake --preset release > /dev/null
cmake --build build --target finalizer kpim
exec /usr/bin/python3 benchmarks/compare.py --build build "$@"
