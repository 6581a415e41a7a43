#!/usr/bin/env bash
# Installs everything the build, the tests, the benchmarks and the demo need from
# Debian's archive. Cheap when everything is already there: dpkg is asked first.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config git
  qt6-base-dev qt6-base-dev-tools qt6-declarative-dev qt6-declarative-dev-tools
  qt6-multimedia-dev qt6-tools-dev-tools libqt6opengl6-dev libgl-dev
  qml6-module-qtquick qml6-module-qtquick-window qml6-module-qtquick-controls
  qml6-module-qtquick-layouts qml6-module-qtquick-templates qml6-module-qtqml-workerscript
  qml6-module-qtquick-dialogs qml6-module-qtmultimedia qml6-module-qtqml qml6-module-qtqml-models
  qml6-module-qt-labs-platform qml-qt6 qt6-qpa-plugins binutils
  libmpv-dev libcpp-httplib-dev libssl-dev nlohmann-json3-dev libzip-dev zip unzip
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libavfilter-dev libswresample-dev
  ffmpeg fonts-dejavu-core libopencv-core-dev libopencv-imgproc-dev openimageio-tools
  xvfb xauth x11-utils libx11-dev libxcb1-dev libgl1-mesa-dri
  openssl curl aria2 dbus
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
