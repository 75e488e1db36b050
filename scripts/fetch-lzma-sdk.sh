#!/usr/bin/env bash
# Fetches the current LZMA SDK sources into .cache/lzma-sdk, where CMake looks for
# them first. They come from Debian's source package of 7zip, signed and checked by
# apt like any package. It decodes about 10 % faster than release 9.22 in lzma-dev,
# and writes the same format. Without it the build uses lzma-dev.
#
# Changes no apt configuration: the package lists are in a folder of their own.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
target=$repo/.cache/lzma-sdk
[ -e "$target/C/LzmaDec.c" ] && exit 0

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/lists/partial" "$work/download"

# The source lists of the Debian archives that this machine already trusts.
# shellcheck disable=SC2016  # apt's own placeholders
apt-get indextargets --format '$(ORIGIN)|$(REPO_URI)|$(CODENAME)|$(COMPONENT)' \
    'Created-By: Packages' |
    awk -F'|' '$1 == "Debian" && !seen[$0]++ { print "deb-src " $2 " " $3 " " $4 }' \
        > "$work/sources.list"
if [ ! -s "$work/sources.list" ]; then
    echo "fetch-lzma-sdk: apt knows no Debian archive (run 'apt-get update' once)" >&2
    exit 1
fi

options=(-q -o "Dir::Etc::sourcelist=$work/sources.list" -o Dir::Etc::sourceparts=/dev/null
    -o "Dir::State::lists=$work/lists" -o APT::Sandbox::User=root -o Dpkg::Use-Pty=0)
fetch_source_package() {
    apt-get "${options[@]}" update &&
        (cd "$work/download" && apt-get "${options[@]}" source --download-only 7zip)
}
if ! fetch_source_package > "$work/log" 2>&1; then
    tail -n 3 "$work/log" >&2
    echo "fetch-lzma-sdk: the source package 7zip could not be had" >&2
    exit 1
fi

mkdir "$work/unpacked"
tar -xf "$work"/download/7zip_*.orig.tar.* -C "$work/unpacked" --wildcards '*/C/*.c' '*/C/*.h'
sources=$(find "$work/unpacked" -path '*/C/LzmaDec.c' -printf '%h\n' -quit)
if [ -z "$sources" ]; then
    echo "fetch-lzma-sdk: the source package holds no C/LzmaDec.c" >&2
    exit 1
fi
mkdir -p "$(dirname "$target")"
rm -rf "$target.new"
mkdir "$target.new"
mv "$sources" "$target.new/C"
rm -rf "$target"
mv "$target.new" "$target"
echo "fetch-lzma-sdk: LZMA SDK $(sed -n 's/^#define MY_VERSION_NUMBERS "\(.*\)"/\1/p' "$target/C/7zVersion.h") in .cache/lzma-sdk"
