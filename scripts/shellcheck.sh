#!/usr/bin/env bash
# Checks every tracked shell script with shellcheck.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files -z '*.sh' .ci/run | xargs -0 -r shellcheck
