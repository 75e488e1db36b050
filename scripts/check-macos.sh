#!/usr/bin/env bash
# Checks on any host that the product compiles and links for macOS, and makes the universal files.
#
#   scripts/check-macos.sh --sdk DIR [--build-dir DIR] [--tests] [-DNAME=VALUE...]
#
# Compiles every product source for Intel processors (macOS 10.6) and for Apple's (11.0) against the
# SDK in DIR. When the SDK has link stubs, links the executables, joins each of them into one
# universal file in build/macos/bin, and checks the slices' load commands and imports. With --tests
# it compiles the unit tests too, except those that docs/macos.md names, and links them when there
# are stubs. Must be run in a git checkout, whose list of files says which sources there are.
# -D options, such as the vendor's hosts, go to cmake.
# Prints what it did and what it could not do; exit status 1 when anything it did fails.
# docs/macos.md lists what an SDK must hold.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
out=$repo/build/macos
sdk=
with_tests=
given=()
googletest=/usr/src/googletest
architectures=(x86_64 arm64)
declare -A oldest=([x86_64]=10.6 [arm64]=11.0)
declare -A cxx_library=([x86_64]=libstdc++ [arm64]=libc++)
frameworks=(Foundation CoreFoundation SystemConfiguration Security ServiceManagement)

usage() {
    echo "usage: scripts/check-macos.sh --sdk DIR [--build-dir DIR] [--tests] [-DNAME=VALUE...]" >&2
    exit 2
}
fail() {
    echo "check-macos: $*" >&2
    exit 1
}

while [ $# -gt 0 ]; do
    case $1 in
        --tests) with_tests=yes ;;
        -D?*=*) given+=("$1") ;;
        --sdk | --build-dir)
            [ $# -ge 2 ] || usage
            if [ "$1" = --sdk ]; then sdk=$2; else out=$2; fi
            shift
            ;;
        *) usage ;;
    esac
    shift
done
[ -n "$sdk" ] || usage
[ -d "$sdk/usr/include" ] || fail "$sdk: no SDK: usr/include is missing"
[ -f "$sdk/SDKSettings.json" ] || fail "$sdk: SDKSettings.json is missing: the linked files would \
record 10.6 as their SDK (docs/macos.md)"
sdk=$(cd "$sdk" && pwd)
mkdir -p "$out"
out=$(cd "$out" && pwd)

# llvm_tool NAME: LLVM's tool, under its plain name or with the release in it.
llvm_tool() {
    command -v "$1" || command -v "$1-14" || fail "$1 is missing (Debian: llvm)"
}
nm=$(llvm_tool llvm-nm)
objdump=$(llvm_tool llvm-objdump)
lipo=$(llvm_tool llvm-lipo)

# run LOG COMMAND...: shows the command's output only when it fails.
run() {
    local log=$1
    shift
    "$@" > "$log" 2>&1 && return
    tail -n 60 "$log" >&2
    return 1
}

# CLI11 is headers only. They are offered in a folder of their own, because the host's
# /usr/include must not come before the SDK's.
product=(player shared/platform/mac shared/platform/posix)
with_kpim=OFF
# KP_WERROR: a warning is an error.
options=("-DMACOS_SDK=$sdk" -DKP_WERROR=ON "${given[@]}")
if [ -d /usr/include/CLI ] && [ -d /usr/share/cmake/CLI11 ]; then
    mkdir -p "$out/cli11/include" "$out/cli11/share/cmake"
    cp -Rp /usr/include/CLI "$out/cli11/include/"
    cp -Rp /usr/share/cmake/CLI11 "$out/cli11/share/cmake/"
    options+=("-DCLI11_DIR=$out/cli11/share/cmake/CLI11")
    product+=(tools)
    with_kpim=ON
else
    echo "kpim: not compiled: CLI11 is not installed (Debian: libcli11-dev)"
fi
options+=("-DKP_BUILD_KPIM=$with_kpim")

mapfile -t sources < <(cd "$repo" && git ls-files "${product[@]}" | grep -E '\.(c|cc|cpp|m|mm)$')
[ ${#sources[@]} -gt 0 ] || fail "git lists no product sources in $repo"

# configure ARCHITECTURE BUILD OPTION...
configure() {
    local architecture=$1 build=$2
    shift 2
    mkdir -p "$build"
    (cd "$repo" && run "$build/configure.log" cmake --preset "macos-$architecture" \
        -S "$repo" -B "$build" "${options[@]}" "$@") || fail "$architecture: configuring failed"
}

# objects BUILD: the object files of a build.
objects() {
    ninja -C "$1" -t targets all | sed -n 's/^\(.*\.o\): .*/\1/p'
}

# --- Compile -------------------------------------------------------------------------

compile() {
    local architecture=$1 build=$out/$1 source compiled=0 files
    configure "$architecture" "$build"
    mapfile -t files < <(objects "$build")
    [ ${#files[@]} -gt 0 ] || fail "the build has no sources"
    run "$build/ninja.log" ninja -C "$build" "${files[@]}" || fail "$architecture: compiling failed"

    for source in "${sources[@]}"; do
        grep -qF "\"file\": \"$repo/$source\"" "$build/compile_commands.json" ||
            fail "$source belongs to no target of the macOS build"
        compiled=$((compiled + 1))
    done
    echo "compiled for $architecture, macOS ${oldest[$architecture]}: $compiled product sources" \
        "and $((${#files[@]} - compiled)) of the LZMA SDK, without a warning"
}

for architecture in "${architectures[@]}"; do
    compile "$architecture"
done

# compile_tests ARCHITECTURE: the unit tests, in a build of their own that is not optimized.
compile_tests() {
    local architecture=$1 build=$out/tests-$1 files
    configure "$architecture" "$build" -DKP_BUILD_KPIM=OFF -DKP_BUILD_TESTS=ON \
        -DCMAKE_BUILD_TYPE= "-DKP_GOOGLETEST_SOURCE_DIR=$googletest" \
        "-DCMAKE_CXX_STANDARD_LIBRARIES=$build/tests.tbd" \
        "-DCMAKE_OBJCXX_STANDARD_LIBRARIES=$build/tests.tbd"
    mapfile -t files < <(objects "$build")
    run "$build/ninja.log" ninja -C "$build" "${files[@]}" ||
        fail "$architecture: compiling the tests failed"
    echo "compiled for $architecture: the unit tests"
}

if [ -n "$with_tests" ]; then
    [ -f "$googletest/CMakeLists.txt" ] || fail "$googletest is missing (Debian: googletest)"
    for architecture in "${architectures[@]}"; do
        compile_tests "$architecture"
    done
fi

# --- Link ----------------------------------------------------------------------------

# lacks ARCHITECTURE: whether a link stub is missing; names each that is.
lacks() {
    local framework stub missing=() stubs=(usr/lib/lib{System,objc,c++}.tbd)
    [ "$1" = arm64 ] || stubs+=(usr/lib/libstdc++.tbd)
    for framework in "${frameworks[@]}"; do
        stubs+=("System/Library/Frameworks/$framework.framework/$framework.tbd")
    done
    for stub in "${stubs[@]}"; do
        [ -e "$sdk/$stub" ] || missing+=("$stub")
    done
    [ ${#missing[@]} -gt 0 ] || return
    printf "not linked for $1: the SDK has no %s\n" "${missing[@]}"
    [ -z "$with_tests" ] || echo "the unit tests for $1: compiled only"
}

# Files of an earlier run must not be taken for this one's.
rm -f "$out"/bin/{finalizer,kpim}
linked=()
for architecture in "${architectures[@]}"; do
    lacks "$architecture" || linked+=("$architecture")
done
if [ ${#linked[@]} -lt ${#architectures[@]} ]; then
    echo "no universal files were made"
    [ ${#linked[@]} -gt 0 ] || exit 0
fi

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$out/x86_64/CMakeCache.txt")

# imports ARCHITECTURE FILE [--tool]: fails when the file imports what the oldest system lacks.
imports() {
    "$repo/scripts/macos_imports.py" --nm "$nm" --objdump "$objdump" --arch "$1" "${@:3}" "$2" ||
        fail "$2 imports what its oldest macOS does not have"
}

# All of the product in one image: also what finalizer does not use.
link_product() {
    local architecture=$1 build=$out/$1 object files=()
    while read -r object; do
        [[ $object == tools/* ]] || files+=("$build/$object")
    done < <(objects "$build")
    clang++ "--target=$architecture-apple-macosx${oldest[$architecture]}" -isysroot "$sdk" \
        -fuse-ld=lld -nostartfiles "-stdlib=${cxx_library[$architecture]}" -bundle \
        -o "$build/product" "${files[@]}" "${frameworks[@]/#/-Wl,-framework,}" ||
        fail "$architecture: linking the product's objects failed"
    imports "$architecture" "$build/product"
}

# make NAME INTEL-MINIMUM [--tool]: links the executable for each processor with stubs, joins the
# files if both are there, and checks the result.
make() {
    local name=$1 architecture file parts=() slices=()
    for architecture in "${linked[@]}"; do
        run "$out/$architecture/ninja.log" ninja -C "$out/$architecture" "$name" ||
            fail "$architecture: linking $name failed"
        parts+=("$out/$architecture/bin/$name")
        if [ "$architecture" = x86_64 ]; then
            slices+=(--slice "x86_64:$2")
        else
            slices+=(--slice "$architecture:${oldest[$architecture]}")
        fi
    done
    if [ ${#parts[@]} -eq ${#architectures[@]} ]; then
        file=$out/bin/$name
        mkdir -p "$out/bin"
        "$lipo" -create "${parts[@]}" -output "$file" || fail "joining $name failed"
        echo "$name, universal: $file"
    else
        file=${parts[0]}
        echo "$name: $file"
    fi
    "$repo/scripts/macos_file.py" --version "$version" "${slices[@]}" "$file" ||
        fail "$name is not what can be shipped"
    for architecture in "${linked[@]}"; do
        imports "$architecture" "$file" "${@:3}"
    done
}

echo "the product's objects, linked together:"
for architecture in "${linked[@]}"; do
    link_product "$architecture"
done
make finalizer "${oldest[x86_64]}"
# kpim uses the C++ library, which has all of C++17 since 10.15.
if [ "$with_kpim" = ON ]; then
    make kpim 10.15 --tool
fi

# link_tests ARCHITECTURE: against the SDK's stubs and a stub of the symbols that these do not list.
link_tests() {
    local architecture=$1 build=$out/tests-$1 files programs
    mapfile -t files < <(objects "$build")
    "$repo/scripts/macos_test_stub.py" --nm "$nm" --sdk "$sdk" --output "$build/tests.tbd" \
        "${files[@]/#/$build/}" || fail "$architecture: the tests lack a symbol"
    mapfile -t programs < <(ninja -C "$build" -t targets all |
        sed -n 's|^\(tests/[^/]*\): .*_EXECUTABLE_LINKER_.*|\1|p')
    [ ${#programs[@]} -gt 0 ] || fail "$architecture: there are no unit-test programs"
    run "$build/ninja.log" ninja -C "$build" "${programs[@]}" ||
        fail "$architecture: linking the tests failed"
    echo "linked for $architecture: ${#programs[@]} unit-test programs"
}

if [ -n "$with_tests" ]; then
    for architecture in "${linked[@]}"; do
        link_tests "$architecture"
    done
fi
