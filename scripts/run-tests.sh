#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite through CTest.
# Extra arguments go to ctest (for example: -R Timeline).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
BUILD_DIR=${BUILD_DIR:-build}
exec ctest --test-dir "$BUILD_DIR" -j "$(nproc)" --output-on-failure "$@"
