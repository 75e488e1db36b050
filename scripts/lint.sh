#!/usr/bin/env bash
# Runs clang-tidy over the product's sources. Needs a configured build folder:
# scripts/lint.sh [BUILD], by default build/release.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/release}
if [ ! -e "$build/compile_commands.json" ]; then
    echo "lint: $build/compile_commands.json is missing: run 'cmake --preset release' first" >&2
    exit 1
fi

product_sources() {
    /usr/bin/python3 - "$build/compile_commands.json" << 'PYTHON'
import json, os, sys
with open(sys.argv[1], encoding="utf-8") as database:
    files = {os.path.relpath(command["file"]) for command in json.load(database)}
product = sorted(name for name in files if name.startswith(("player/", "shared/", "tools/")))
sys.stdout.write("".join(name + "\0" for name in product))
PYTHON
}

# Counts of suppressed warnings are left out: they are those of other people's headers.
product_sources | xargs -0 -n 1 -P "$(nproc)" clang-tidy -quiet -p "$build" 2>&1 |
    sed -E '/ warnings? generated\.$/d'
