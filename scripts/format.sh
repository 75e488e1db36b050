#!/usr/bin/env bash
# Formats every source with clang-format, also those that git does not track yet. With --check it
# changes nothing and fails when a file is not formatted.
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
git ls-files -z --cached --others --exclude-standard '*.c' '*.cpp' '*.h' '*.m' '*.mm' |
    while IFS= read -r -d '' file; do
        # A file that is deleted is tracked until the commit.
        [ ! -e "$file" ] || printf '%s\0' "$file"
    done | xargs -0 -r clang-format "${options[@]}"
