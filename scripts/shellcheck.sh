#!/usr/bin/env bash
# Checks every shell script with shellcheck, also those that git does not track yet.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files -z --cached --others --exclude-standard '*.sh' .ci/run | xargs -0 -r shellcheck
