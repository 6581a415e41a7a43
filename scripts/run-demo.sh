#!/usr/bin/env bash
# Installs what is missing, builds the plugin and the demo, and starts it.
# Without a display it runs under Xvfb and writes a screenshot instead.
# Arguments go to the demo (see: build/demo/kutils-demo --help).
set -euo pipefail
cd "$(dirname "$0")/.."
TARGETS="kutils kutils-demo" bash scripts/build.sh
BUILD_DIR=${BUILD_DIR:-build}
demo="$BUILD_DIR/demo/kutils-demo"
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  exec "$demo" "$@"
fi
shot="$PWD/$BUILD_DIR/demo-screenshot.png"
echo "No display: running under Xvfb and writing a screenshot."
tests/support/with-xvfb.sh "$demo" --screenshot "$shot" "$@"
echo "Screenshot: $shot"
