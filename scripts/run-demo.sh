#!/usr/bin/env bash
# Installs what is missing, builds the plugin and the demo, and starts it.
# Without a display it runs under Xvfb and writes a screenshot instead.
# Arguments go to the demo (see: build/demo/kutils-demo --help).
# The services' offline stand-in (tools/cloud-standin) always runs beside it as
# the model host, serving a sample set of model files (tools/model-set) made for
# the example catalogue; the demo's folders stay under the build folder.
#   --cloud   also sends the whole input through the stand-in's cloud service;
#             the result, rendered negated, covers the right pane.
#   --no-models  skips the first step, which downloads and verifies the
#             preferred device's model files into the demo's model folder.
set -euo pipefail
cd "$(dirname "$0")/.."
cloud=0
models=1
args=()
for arg in "$@"; do
  case "$arg" in
    --cloud) cloud=1 ;;
    --no-models) models=0 ;;
    *) args+=("$arg") ;;
  esac
done
set -- ${args[@]+"${args[@]}"}
TARGETS="kutils kutils-demo cloud-standin model-set" bash scripts/build.sh
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
# Settings and model folders of the demo's own, under the build folder: the
# machine-wide data folder comes first in XDG_DATA_DIRS.
demoHome="$PWD/$BUILD_DIR/demo-home"
export XDG_CONFIG_HOME="$demoHome/config" XDG_DATA_HOME="$demoHome/data"
export XDG_DATA_DIRS="$demoHome/machine-share:${XDG_DATA_DIRS:-/usr/local/share:/usr/share}"
modelDir="$demoHome/machine-share/kutils/kutils-demo/models"
mkdir -p "$modelDir"
cp demo/models/models.json "$modelDir/models.json"
sampleSet="$mediaDir/model-host"
modelPassword="demo-model-password"
rm -rf "$sampleSet"
"$BUILD_DIR/tools/model-set/model-set" --catalogue demo/models/models.json --out "$sampleSet" \
  --password "$modelPassword" > /dev/null
# The stand-in lives as long as its standard input stays open.
service="$mediaDir/cloud-service"
rm -rf "$service" "$mediaDir/cloud-standin.json"
exec 3> >("$BUILD_DIR/tools/cloud-standin/cloud-standin" --dir "$service" --render "negate" \
            --files "$sampleSet" --model-password "$modelPassword" \
            --config-out "$mediaDir/cloud-config.json" ${KUTILS_CONFIG_FILE:+--config-base "$KUTILS_CONFIG_FILE"} \
            > "$mediaDir/cloud-standin.json")
for _ in $(seq 100); do [ -s "$mediaDir/cloud-standin.json" ] && break; sleep 0.1; done
export KUTILS_CONFIG_FILE="$mediaDir/cloud-config.json"
echo "Service stand-in: $(cat "$mediaDir/cloud-standin.json")"
echo "Model folder: $modelDir"
first=()
[ $models = 1 ] && first=("models")
[ $cloud = 1 ] && first+=("cloud" "seek 2000")
steps=()
if [ ${#first[@]} -gt 0 ]; then
  script=$(IFS=';'; echo "${first[*]}")
  steps=(--script "$script")
  # Without the cloud render, the shot is the default one: a preview of the
  # middle third, seen from its middle.
  [ $cloud = 0 ] && script="$script; render; seek middle"
  [ $headless = 1 ] && steps=(--script "$script; shot $shot; quit")
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
