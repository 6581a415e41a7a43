#!/usr/bin/env bash
# Installs what is missing, builds the plugin and the demo, and starts it.
# Without a display it runs under Xvfb and writes a screenshot instead.
# Arguments go to the demo (see: build/demo/kutils-demo --help).
#   --cloud   also starts the cloud service's offline stand-in (tools/cloud-standin)
#             and sends the whole input through it; the result, rendered
#             negated, covers the right pane.
set -euo pipefail
cd "$(dirname "$0")/.."
cloud=0
args=()
for arg in "$@"; do
  if [ "$arg" = "--cloud" ]; then cloud=1; else args+=("$arg"); fi
done
set -- ${args[@]+"${args[@]}"}
TARGETS="kutils kutils-demo cloud-standin" bash scripts/build.sh
BUILD_DIR=${BUILD_DIR:-build}
demo="$BUILD_DIR/demo/kutils-demo"
# The sample video and the rendered previews stay in the build folder.
mediaDir="$PWD/$BUILD_DIR/demo-media"
media=(--media-dir "$mediaDir")
mkdir -p "$mediaDir"
headless=1
[ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && headless=0
# Xvfb has neither GPU nor sound: mpv draws in software and plays no audio
# (unless the caller chose a configuration of their own).
if [ $headless = 1 ]; then
  export KUTILS_CONFIG_FILE="${KUTILS_CONFIG_FILE:-$PWD/demo/demo-xvfb-config.json}"
fi
shot="$PWD/$BUILD_DIR/demo-screenshot.png"
steps=()
if [ $cloud = 1 ]; then
  # The stand-in lives as long as its standard input stays open.
  service="$mediaDir/cloud-service"
  rm -rf "$service" "$mediaDir/cloud-standin.json"
  exec 3> >("$BUILD_DIR/tools/cloud-standin/cloud-standin" --dir "$service" --render "negate" \
              --config-out "$mediaDir/cloud-config.json" ${KUTILS_CONFIG_FILE:+--config-base "$KUTILS_CONFIG_FILE"} \
              > "$mediaDir/cloud-standin.json")
  for _ in $(seq 100); do [ -s "$mediaDir/cloud-standin.json" ] && break; sleep 0.1; done
  export KUTILS_CONFIG_FILE="$mediaDir/cloud-config.json"
  echo "Cloud stand-in: $(cat "$mediaDir/cloud-standin.json")"
  steps=(--script "cloud")
  [ $headless = 1 ] && steps=(--script "cloud; seek 2000; shot $shot; quit")
elif [ $headless = 1 ]; then
  steps=(--screenshot "$shot")
fi
if [ $headless = 0 ]; then
  "$demo" "${media[@]}" "${steps[@]}" "$@"
  exit
fi
echo "No display: running under Xvfb and writing a screenshot."
tests/support/with-xvfb.sh "$demo" "${media[@]}" "${steps[@]}" "$@"
echo "Screenshot: $shot"
