#!/usr/bin/env bash
# Installs what is missing, builds the plugin and the demo, and starts it.
# Without a display it runs under Xvfb and writes a screenshot instead.
# Arguments go to the demo (see: build/demo/kutils-demo --help).
set -euo pipefail
cd "$(dirname "$0")/.."
TARGETS="kutils kutils-demo" bash scripts/build.sh
BUILD_DIR=${BUILD_DIR:-build}
demo="$BUILD_DIR/demo/kutils-demo"
# The sample video and the rendered previews stay in the build folder.
media=(--media-dir "$PWD/$BUILD_DIR/demo-media")
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  exec "$demo" "${media[@]}" "$@"
fi
# Xvfb has neither GPU nor sound: mpv draws in software and plays no audio
# (unless the caller chose a configuration of their own).
export KUTILS_CONFIG_FILE="${KUTILS_CONFIG_FILE:-$PWD/demo/demo-xvfb-config.json}"
shot="$PWD/$BUILD_DIR/demo-screenshot.png"
echo "No display: running under Xvfb and writing a screenshot."
tests/support/with-xvfb.sh "$demo" "${media[@]}" --screenshot "$shot" "$@"
echo "Screenshot: $shot"
