#!/usr/bin/env bash
# Tries the product on the Mac that it runs on, as far as possible without a person and without
# root.
#
#   scripts/try-on-mac.sh [DIR]
#
# Without DIR it builds for this Mac into build/mac and runs the unit tests. With DIR it takes the
# programs of an unpacked *-macOS-universal.tar.gz instead, and looks at their slices. Either way it
# then packs, verifies and unpacks an application of the system, and runs the finalizer as the user
# who calls it, on an install root in a temporary folder. That run adds a few lines to the user's
# ~/Library/Logs/KorvelPlayerInstallManager.log. For one of the trials this log is moved to *.aside,
# and back at the end. The finalizer logs for the user at the console: from elsewhere, such as through
# ssh while no one is logged in, the trials of the log are left out.
#
# Prints a line for each trial and counts those that failed; exit status 1 when one did.
# docs/macos.md lists the steps that need a person.
#
# For the bash 3.2 of macOS.
set -uo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
system=$(uname)
bundle="Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin"
log="$HOME/Library/Logs/KorvelPlayerInstallManager.log"
tried=0
failed=0

if [ "$system" != Darwin ] || [ $# -gt 1 ]; then
    echo "usage, on a Mac: scripts/try-on-mac.sh [DIR]" >&2
    exit 2
fi
console=$(stat -f %Su /dev/console)
work=$(mktemp -d)
clean_up() {
    # Unlocks what a failed trial has left.
    chflags -R nouchg "$work" 2> /dev/null
    rm -rf "$work"
    [ ! -p "$log" ] || rm "$log"
    [ ! -e "$log.aside" ] || mv "$log.aside" "$log"
}
trap clean_up EXIT

# try NAME COMMAND...: one trial. Its output is shown when it fails.
try() {
    local name=$1
    shift
    tried=$((tried + 1))
    if "$@" > "$work/output" 2>&1; then
        echo "ok: $name"
    else
        failed=$((failed + 1))
        echo "FAILED: $name"
        sed 's/^/    /' "$work/output"
    fi
}

# within SECONDS COMMAND...: its exit status, 124 when it takes longer. macOS has no timeout(1).
within() {
    local limit=$1 child
    shift
    "$@" &
    child=$!
    while kill -0 "$child" 2> /dev/null; do
        if [ "$limit" -eq 0 ]; then
            kill -9 "$child"
            wait "$child" 2> /dev/null
            return 124
        fi
        limit=$((limit - 1))
        sleep 1
    done
    wait "$child"
}

# --- The programs --------------------------------------------------------------------

build() {
    cmake -G Ninja -S "$repo" -B "$repo/build/mac" -DCMAKE_BUILD_TYPE=Release \
        ${LZMA_SDK_DIR:+"-DLZMA_SDK_DIR=$LZMA_SDK_DIR"} && cmake --build "$repo/build/mac"
}

slices() {
    # The Intel slice is signed for a release only.
    [ "$(lipo -archs "$1")" = "x86_64 arm64" ] &&
        codesign --verify --verbose --architecture arm64 "$1"
}

if [ $# -eq 0 ]; then
    try "build for this Mac" build
    kpim=$repo/build/mac/bin/kpim
    finalizer=$repo/build/mac/bin/finalizer
    for test in "$repo"/build/mac/tests/*[Tt]est; do
        try "unit test ${test##*/}" within 300 "$test" --gtest_brief=1
    done
else
    kpim=$1/bin/kpim
    finalizer=$1/libexec/kpinstallmanager/finalizer
    try "kpim is universal, its Apple slice signed" slices "$kpim"
    try "finalizer is universal, its Apple slice signed" slices "$finalizer"
fi
if [ ! -x "$kpim" ] || [ ! -x "$finalizer" ]; then
    echo "try-on-mac: there are no programs to try" >&2
    exit 1
fi

# --- kpim ----------------------------------------------------------------------------

# An application of the system, of some megabytes.
application=
for candidate in /System/Applications/TextEdit.app /Applications/TextEdit.app; do
    [ ! -d "$candidate" ] || application=$candidate
done
# Copied without links and attributes, which a blob does not hold.
mkdir "$work/bundle"
(cd "${application:-/usr/share}" && find . -type f -size -4096 | head -n 500 |
    tar cf - -T -) 2> /dev/null | tar xf - -C "$work/bundle"

try "kpim pack" "$kpim" pack "$work/bundle" -o "$work/blob"
try "kpim verify" "$kpim" verify "$work/blob" "$work/bundle"
try "kpim unpack" "$kpim" unpack "$work/blob" "$work/unpacked"
try "what is unpacked is what was packed" diff -r "$work/bundle" "$work/unpacked"
if [ "$(uname -m)" = arm64 ] && [ $# -eq 1 ] && arch -x86_64 /usr/bin/true 2> /dev/null; then
    try "kpim verify under Rosetta" arch -x86_64 "$kpim" verify "$work/blob"
fi

# --- finalizer -----------------------------------------------------------------------

# An install root with the blob and an older bundle in it.
prepare() {
    chflags -R nouchg "$work/root" 2> /dev/null
    rm -rf "$work/root"
    mkdir -p "$work/root/$bundle/Contents/Old" &&
        echo old > "$work/root/$bundle/Contents/Old/file" &&
        cp "$work/blob" "$work/root/$bundle.lzma"
}

# The report of the installation goes to a host that does not exist; otherwise it ends after 30
# seconds.
finalize() {
    prepare && "$@" && within 90 "$finalizer" "$work/root"
}

is_installed() {
    [ ! -e "$work/root/$bundle.lzma" ] && diff -r "$work/bundle" "$work/root/$bundle"
}

logged_lines() {
    tail -n 20 "$log" 2> /dev/null | sed -n 's/^[-0-9]* [:0-9]* [-+0-9]* \[.\] FIN: \(\[finalizer .*\]\)$/\1/p' |
        tail -n 2 | tr '\n' ' '
}

lock_old() { chflags uchg "$work/root/$bundle/Contents/Old/file"; }
lock_old_folder() { chflags uchg "$work/root/$bundle/Contents/Old"; }
fifo_for_log() {
    [ ! -e "$log" ] || mv "$log" "$log.aside"
    mkfifo "$log"
}

try "finalizer: status 0" finalize true
try "finalizer: the bundle is the packed one" is_installed
if [ "$console" = "$(id -un)" ]; then
    try "finalizer: the log" test "$(logged_lines)" = "[finalizer started] [finalizer succeeded] "
else
    echo "not tried: the log and a FIFO in its place: $console is at the console, not $(id -un)"
fi
try "finalizer without a blob: status 1" test "$(within 90 "$finalizer" "$work/root"; echo $?)" = 1
try "finalizer over a locked file: status 0" finalize lock_old
try "finalizer over a locked file: it is gone" is_installed
try "finalizer over a locked folder: status 0" finalize lock_old_folder
try "finalizer over a locked folder: it is gone" is_installed
if [ "$console" = "$(id -un)" ]; then
    try "finalizer with a FIFO in the log's place: status 0" finalize fifo_for_log
    try "finalizer with a FIFO in the log's place: the bundle" is_installed
fi

echo "On $(sw_vers -productVersion 2> /dev/null) ($(uname -m)): $tried tried, $failed failed"
[ "$failed" -eq 0 ]
