#!/usr/bin/env bash
# Checks on any host that the product compiles, links and stays within macOS 10.6.
#
#   scripts/check-macos.sh --sdk DIR [--build-dir DIR]
#
# Compiles every product source for x86_64 macOS against the SDK in DIR and, when the
# SDK has link stubs, links the executables and looks at what they import. Says what it
# did and what it could not do; exit status 1 when anything it did fails.
# docs/macos.md lists what an SDK must hold.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$repo/build/macos
sdk=

usage() {
    echo "usage: scripts/check-macos.sh --sdk DIR [--build-dir DIR]" >&2
    exit 2
}
fail() {
    echo "check-macos: $*" >&2
    exit 1
}

while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || usage
    case $1 in
        --sdk) sdk=$2 ;;
        --build-dir) build=$2 ;;
        *) usage ;;
    esac
    shift 2
done
[ -n "$sdk" ] || usage
[ -d "$sdk/usr/include" ] || fail "$sdk: no SDK: usr/include is missing"
sdk=$(cd "$sdk" && pwd)

# Builds targets; shows the build's output only when it fails.
build_targets() {
    ninja -C "$build" --quiet "$@" > "$build/ninja.log" 2>&1 && return
    cat "$build/ninja.log" >&2
    return 1
}

# The first of LLVM's tools under its plain name or with the release in it.
llvm_tool() {
    command -v "$1" || command -v "$1-14" || fail "$1 is missing (Debian: llvm)"
}
nm=$(llvm_tool llvm-nm)
objdump=$(llvm_tool llvm-objdump)

# --- Compile -------------------------------------------------------------------------

product=(player shared/platform/mac shared/platform/posix)
configure=("--preset" macos -S "$repo" -B "$build" "-DMACOS_SDK=$sdk")
# CLI11 is headers only. They are offered in a folder of their own, because the host's
# /usr/include must not come before the SDK's.
if [ -d /usr/include/CLI ] && [ -d /usr/share/cmake/CLI11 ]; then
    mkdir -p "$build/cli11/include" "$build/cli11/share/cmake"
    cp -R /usr/include/CLI "$build/cli11/include/"
    cp -R /usr/share/cmake/CLI11 "$build/cli11/share/cmake/"
    configure+=(-DKP_BUILD_KPIM=ON "-DCLI11_DIR=$build/cli11/share/cmake/CLI11")
    product+=(tools)
else
    configure+=(-DKP_BUILD_KPIM=OFF)
    echo "kpim: not compiled: CLI11 is not installed (Debian: libcli11-dev)"
fi
mkdir -p "$build"
(cd "$repo" && cmake "${configure[@]}") > "$build/configure.log" 2>&1 || {
    tail -n 20 "$build/configure.log" >&2
    fail "configuring failed"
}

mapfile -t objects < <(ninja -C "$build" -t targets all | sed -n 's/^\(.*\.o\): .*/\1/p')
[ ${#objects[@]} -gt 0 ] || fail "the build has no sources"
build_targets "${objects[@]}" || fail "compiling failed"

mapfile -t sources < <(cd "$repo" && git ls-files "${product[@]}" |
    grep -E '\.(c|cc|cpp|m|mm)$')
compiled=0
for source in "${sources[@]}"; do
    grep -qF "\"file\": \"$repo/$source\"" "$build/compile_commands.json" ||
        fail "$source belongs to no target of the macOS build"
    compiled=$((compiled + 1))
done
echo "compiled: $compiled product sources and $((${#objects[@]} - compiled)) of the LZMA SDK, without a warning"

# --- Link ----------------------------------------------------------------------------

frameworks=(Foundation CoreFoundation SystemConfiguration Security ServiceManagement)
stubs=(usr/lib/lib{System,objc,stdc++}.tbd)
for framework in "${frameworks[@]}"; do
    stubs+=("System/Library/Frameworks/$framework.framework/$framework.tbd")
done
missing=()
for stub in "${stubs[@]}"; do
    [ -e "$sdk/$stub" ] || missing+=("$stub")
done
if [ ${#missing[@]} -gt 0 ]; then
    printf 'not linked, imports not looked at: the SDK has no %s\n' "${missing[@]}"
    exit 0
fi

# cache_value NAME: a variable of CMake's cache.
cache_value() {
    sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"
}
version=$(cache_value CMAKE_PROJECT_VERSION)

# check_executable NAME MINIMUM-RELEASE: one linked file.
check_executable() {
    local name=$1 minimum=$2 file=$build/bin/$1
    local headers
    build_targets "$name" || fail "linking $name failed"

    headers=$("$objdump" --macho --private-headers "$file")
    grep -q 'MH_MAGIC_64 *X86_64 .*EXECUTE' <<< "$headers" ||
        fail "$name is no x86_64 Mach-O executable"
    grep -Eq "^ *(version|minos) ${minimum//./\\.}\$" <<< "$headers" ||
        fail "$name does not ask for macOS $minimum"
    "$objdump" --macho --section=__TEXT,__info_plist "$file" |
        grep -A 1 '<key>CFBundleVersion</key>' | grep -qF "<string>$version</string>" ||
        fail "$name: __TEXT,__info_plist does not carry the version $version"
    echo "linked: $name, x86_64, macOS $minimum and later, information dictionary of $version"
}

# All of the product in one image: also what finalizer does not use.
image=$build/product
product_objects=()
for object in "${objects[@]}"; do
    [[ $object == tools/* ]] || product_objects+=("$build/$object")
done
clang++ --target=x86_64-apple-macosx10.6 -isysroot "$sdk" -fuse-ld=lld -nostartfiles \
    -stdlib=libstdc++ -bundle -o "$image" "${product_objects[@]}" \
    "${frameworks[@]/#/-Wl,-framework,}" ||
    fail "linking the product's objects failed"
/usr/bin/env python3 "$repo/scripts/macos_imports.py" --nm "$nm" --objdump "$objdump" "$image" ||
    fail "the product imports what macOS 10.6 does not have"

check_executable finalizer 10.6
/usr/bin/env python3 "$repo/scripts/macos_imports.py" --nm "$nm" --objdump "$objdump" \
    "$build/bin/finalizer" ||
    fail "finalizer imports what macOS 10.6 does not have"

if [[ " ${sources[*]}" == *" tools/kpim/"* ]]; then
    if [ -e "$sdk/usr/lib/libc++.tbd" ]; then
        check_executable kpim 10.15
    else
        echo "kpim: not linked: the SDK has no usr/lib/libc++.tbd"
    fi
fi
