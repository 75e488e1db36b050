#!/usr/bin/env bash
# Shows an install from end to end: builds, makes a bundle of more than a thousand real files, packs
# it with kpim, runs the unmodified finalizer in a root of its own, and compares every byte. Takes
# half a minute after the build. Changes nothing outside build/ and a temporary folder; needs root
# for the root of its own. With --picture it also makes docs/demo.svg from its output.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -gt 1 ] || { [ $# -eq 1 ] && [ "$1" != --picture ]; }; then
    echo "usage: scripts/demo.sh [--picture]" >&2
    exit 2
fi

scripts/bootstrap.sh
echo "Building ..."
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset release && cmake --build --preset release -j "$(nproc)" --target finalizer kpim; } \
    > "$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi

run=(/usr/bin/env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 scripts/demo.py)
[ "$(id -u)" -eq 0 ] || run=(sudo "${run[@]}")
"${run[@]}" | tee "$log"
if [ $# -eq 1 ]; then
    scripts/demo_picture.py < "$log" > docs/demo.svg
fi
