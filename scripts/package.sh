#!/usr/bin/env bash
# Builds the packages from a release build: build/release/packages/*.deb and *.tar.gz.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh
cmake --preset release > /dev/null
cmake --build --preset release -j "$(nproc)" --target finalizer kpim
rm -rf build/release/packages
# The rules of Debian: what is installed may be read by everybody, whoever builds.
umask 022
(cd build/release && cpack > packages.log 2>&1) || {
    cat build/release/packages.log >&2
    exit 1
}
find build/release/packages -maxdepth 1 -type f -printf '%p %s bytes\n' | sort
