#!/usr/bin/env bash
# Runs clang-tidy over the product's sources. Needs a configured build folder:
# scripts/lint.sh [BUILD], by default build.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
if [ ! -e "$build/compile_commands.json" ]; then
    echo "lint: $build/compile_commands.json is missing: run 'cmake --preset release' first" >&2
    exit 1
fi
exec run-clang-tidy -quiet -p "$build" -j "$(nproc)" "^$PWD/(player|shared|tools)/"
