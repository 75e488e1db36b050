#!/usr/bin/env bash
# Runs clang-tidy over the product's sources, or over the given ones.
#
#   scripts/lint.sh [--build DIR] [FILE...]
#
# DIR is a configured build folder, by default build/release.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)

usage() {
    echo "usage: scripts/lint.sh [--build DIR] [FILE...]" >&2
    exit 2
}

build=$repo/build/release
files=()
while [ $# -gt 0 ]; do
    case $1 in
        --build)
            [ $# -ge 2 ] || usage
            build=$(realpath -m "$2")
            shift
            ;;
        -*) usage ;;
        *) files+=("$(realpath -m "$1")") ;;
    esac
    shift
done
cd "$repo"
if [ ! -e "$build/compile_commands.json" ]; then
    echo "lint: $build/compile_commands.json is missing: run 'cmake --preset release' first" >&2
    exit 1
fi

# The files that are checked, each with a NUL after it. Fails when a given one is not compiled.
sources() {
    /usr/bin/python3 - "$build/compile_commands.json" "${files[@]}" << 'PYTHON'
import json, os, sys
with open(sys.argv[1], encoding="utf-8") as database:
    compiled = {os.path.relpath(command["file"]) for command in json.load(database)}
wanted = [os.path.relpath(name) for name in sys.argv[2:]]
unknown = [name for name in wanted if name not in compiled]
if unknown:
    sys.exit(f"lint: not a source that the build compiles: {', '.join(unknown)}")
if not wanted:
    wanted = sorted(name for name in compiled if name.startswith(("player/", "shared/", "tools/")))
sys.stdout.write("".join(name + "\0" for name in wanted))
PYTHON
}

list=$(mktemp)
trap 'rm -f "$list"' EXIT
sources > "$list"
# Leaves out the counts of suppressed warnings, which are from other projects' headers.
xargs -0 -r -n 1 -P "$(nproc)" clang-tidy -quiet -p "$build" < "$list" 2>&1 |
    sed -E '/ warnings? generated\.$/d'
