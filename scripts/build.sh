#!/usr/bin/env bash
# Installs what is missing, configures once and builds. Used by the other scripts.
#   BUILD_DIR  build folder (default: build)
#   TARGETS    what to build (default: everything)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
BUILD_DIR=${BUILD_DIR:-build}
# Let ccache share objects between clones in other folders (CI builds a fresh
# clone each time).
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
if [ ! -f "$BUILD_DIR/build.ninja" ]; then
  cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKUTILS_STRICT_TESTS=ON ${CMAKE_ARGS:-}
fi
# shellcheck disable=SC2086
cmake --build "$BUILD_DIR" -j "$(nproc)" ${TARGETS:+--target $TARGETS}
