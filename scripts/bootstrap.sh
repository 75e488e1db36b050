#!/usr/bin/env bash
# Installs what building, testing and the demo need, on Debian 12, as root or through
# sudo. Does nothing when all of it is there.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)

packages=(
    # build
    clang clang-format clang-tidy cmake git libclang-rt-14-dev lld llvm ninja-build pkg-config
    libcli11-dev libcurl4-openssl-dev libicu-dev libssl-dev libsystemd-dev lzma-dev
    gnustep-make libgnustep-base-dev libobjc-12-dev make
    # test and demo
    bubblewrap ca-certificates debian-archive-keyring debootstrap dpkg-dev file libbenchmark-dev
    libgmock-dev libgtest-dev nginx-light openssl python3 python3-pytest shellcheck strace
    systemd-container util-linux valgrind zsh
    # peers in the benchmarks
    7zip libarchive-tools time xz-utils
)

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2> /dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
done

# The current LZMA SDK is faster than lzma-dev's, but the build does not depend on it.
fetch_lzma_sdk() {
    "$repo/scripts/fetch-lzma-sdk.sh" || echo "bootstrap: building with the LZMA SDK of lzma-dev"
}

if [ ${#missing[@]} -eq 0 ]; then
    fetch_lzma_sdk
    exit 0
fi

elevate=()
if [ "$(id -u)" -ne 0 ]; then
    # With a terminal sudo may ask for the password, without one it must not need it.
    if ! command -v sudo > /dev/null || { [ ! -t 0 ] && ! sudo -n true 2> /dev/null; }; then
        echo "bootstrap: these packages are missing, and installing them needs root:" >&2
        echo "  ${missing[*]}" >&2
        exit 1
    fi
    elevate=(sudo)
fi

echo "bootstrap: installing ${missing[*]}"
# The tests start their own servers. A package's own server is not needed, and its installation
# fails when port 80 is taken.
"${elevate[@]}" bash -s -- "${missing[@]}" << 'ROOT'
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    trap 'rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' > "$policy"
    chmod 755 "$policy"
fi
apt-get -q update < /dev/null
apt-get -q -y -o Dpkg::Use-Pty=0 install --no-install-recommends "$@" < /dev/null
ROOT
fetch_lzma_sdk
