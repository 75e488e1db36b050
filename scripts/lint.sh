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

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Writes the names of the files that are checked, each with a NUL after it, and a compilation database
# with one command for each: clang-tidy checks a source that tests compile too once for each command.
# Precompiled headers are removed, because they hide a missing include. Fails when a given file is not
# compiled.
select_sources() {
    /usr/bin/python3 - "$build/compile_commands.json" "$work" "${files[@]}" << 'PYTHON'
import json, os, re, shlex, sys
database, work, *given = sys.argv[1:]
commands = {}
with open(database, encoding="utf-8") as file:
    for command in json.load(file):
        words = "\0".join(shlex.split(command["command"]))
        words = re.sub("\0-Xclang\0-include(-pch)?\0-Xclang\0[^\0]+", "", words)
        command["command"] = shlex.join(words.split("\0"))
        # The product's own command comes before those of its tests.
        commands.setdefault(os.path.relpath(command["file"]), command)
wanted = [os.path.relpath(name) for name in given]
unknown = [name for name in wanted if name not in commands]
if unknown:
    sys.exit(f"lint: not a source that the build compiles: {', '.join(unknown)}")
if not wanted:
    wanted = sorted(name for name in commands if name.startswith(("player/", "shared/", "tools/")))
with open(work + "/compile_commands.json", "w", encoding="utf-8") as file:
    json.dump(list(commands.values()), file)
with open(work + "/sources", "w", encoding="utf-8") as file:
    file.write("".join(name + "\0" for name in wanted))
PYTHON
}

select_sources
# Leaves out the counts of suppressed warnings, which are from other projects' headers.
xargs -0 -r -n 1 -P "$(nproc)" clang-tidy -quiet -p "$work" < "$work/sources" 2>&1 |
    sed -E '/ warnings? generated\.$/d'
