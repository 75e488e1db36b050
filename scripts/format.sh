#!/usr/bin/env bash
# Formats every tracked source with clang-format. With --check it changes nothing and
# fails when a file is not formatted.
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
    "") options=(-i) ;;
    --check) options=(--dry-run --Werror) ;;
    *)
        echo "usage: scripts/format.sh [--check]" >&2
        exit 2
        ;;
esac
git ls-files -z '*.c' '*.cpp' '*.h' '*.m' '*.mm' | xargs -0 -r clang-format "${options[@]}"
