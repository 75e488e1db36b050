#!/usr/bin/env bash
# Builds the packages from a release build: build/release/packages/*.deb and *.tar.gz.
#
#   scripts/package.sh [--placeholder-hosts] [-DNAME=VALUE...]
#   scripts/package.sh [--placeholder-hosts] --macos DIR
#
# -D options, such as the vendor's hosts (README.md), go to cmake, which remembers them. Prints the
# hosts of the build. Reserved ones, such as the defaults, and the default contact are refused without
# --placeholder-hosts.
# --macos makes a tarball of the universal macOS programs in DIR/bin, where scripts/check-macos.sh
# leaves them, with man pages and completions: DIR/packages/*-macOS-universal.tar.gz.
set -euo pipefail
here=$PWD
cd "$(dirname "$0")/.."

package_macos() {
    local build=$1 version name
    version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
    # Refuses a program for one processor, or with wrong load commands.
    scripts/macos_file.py --version "$version" --slice x86_64:10.6 --slice arm64:11.0 \
        "$build/bin/finalizer"
    scripts/macos_file.py --version "$version" --slice x86_64:10.15 --slice arm64:11.0 \
        "$build/bin/kpim"

    name=kpinstallmanager-$version-macOS-universal
    stage=$(mktemp -d)
    trap 'rm -rf "$stage"' EXIT
    umask 022
    mkdir -p "$build/packages"
    install -D "$build/bin/kpim" "$stage/$name/bin/kpim"
    install -D "$build/bin/finalizer" "$stage/$name/libexec/kpinstallmanager/finalizer"
    while read -r source target; do
        install -D -m 644 "$source" "$stage/$name/share/$target"
    done << 'FILES'
tools/kpim/kpim.1 man/man1/kpim.1
player/Installers/Mac/KPInstallManager/finalizer.8 man/man8/finalizer.8
tools/kpim/completions/kpim.bash bash-completion/completions/kpim
tools/kpim/completions/_kpim zsh/site-functions/_kpim
tools/kpim/completions/kpim.fish fish/vendor_completions.d/kpim.fish
LICENSE doc/kpinstallmanager/LICENSE
README.md doc/kpinstallmanager/README.md
ARCHITECTURE.md doc/kpinstallmanager/ARCHITECTURE.md
CHANGELOG.md doc/kpinstallmanager/CHANGELOG.md
CONTRIBUTING.md doc/kpinstallmanager/CONTRIBUTING.md
cmake/copyright doc/kpinstallmanager/copyright
FILES
    mkdir "$stage/$name/share/doc/kpinstallmanager/docs"
    install -m 644 docs/* "$stage/$name/share/doc/kpinstallmanager/docs/"
    # Not stripped: that would break the signature.
    tar -C "$stage" --owner=0 --group=0 --numeric-owner --sort=name \
        -czf "$build/packages/$name.tar.gz" "$name"
    find "$build/packages" -maxdepth 1 -type f -printf '%p %s bytes\n'
}

usage() {
    echo "usage: scripts/package.sh [--placeholder-hosts] [--macos DIR | -DNAME=VALUE...]" >&2
    exit 2
}

macos=
placeholders=()
options=()
while [ $# -gt 0 ]; do
    case $1 in
        --placeholder-hosts) placeholders=("$1") ;;
        --macos)
            [ $# -ge 2 ] || usage
            macos=$2
            shift
            ;;
        -D?*=*) options+=("$1") ;;
        *) usage ;;
    esac
    shift
done
[ -z "$macos" ] || [ ${#options[@]} -eq 0 ] || usage

# check_hosts BUILD...
check_hosts() {
    scripts/vendor_hosts.py "${placeholders[@]}" "$@"
}

if [ -n "$macos" ]; then
    macos=$(cd "$here" && realpath --canonicalize-missing "$macos")
    for name in bin/{finalizer,kpim} {x86_64,arm64}/generated/vendor-config.json; do
        [ -f "$macos/$name" ] || {
            echo "package: $macos/$name is missing: scripts/check-macos.sh makes it" >&2
            exit 1
        }
    done
    check_hosts "$macos/x86_64" "$macos/arm64"
    package_macos "$macos"
    exit
fi

scripts/bootstrap.sh
# cmake reports wrong options on standard error.
cmake --preset release "${options[@]}" > /dev/null
cache=build/release/CMakeCache.txt
# A misspelled name would leave the old value in place.
if unknown=$(grep -m 1 -o '^KP_[^:]*:UNINITIALIZED' "$cache"); then
    unknown=${unknown%:*}
    cmake build/release "-U$unknown" > /dev/null
    echo "package: no such setting: $unknown" >&2
    exit 1
fi
check_hosts build/release
if [ ${#placeholders[@]} -eq 0 ] && grep -q '^CPACK_PACKAGE_CONTACT:.*\.example>' "$cache"; then
    echo 'package: the contact is a placeholder: set -DCPACK_PACKAGE_CONTACT="NAME <ADDRESS>"' >&2
    exit 1
fi
cmake --build --preset release -j "$(nproc)" --target finalizer kpim
rm -rf build/release/packages
# Debian's rule: all users may read what is installed, whatever the umask of the build.
umask 022
(cd build/release && cpack > packages.log 2>&1) || {
    cat build/release/packages.log >&2
    exit 1
}
find build/release/packages -maxdepth 1 -type f -printf '%p %s bytes\n' | sort
