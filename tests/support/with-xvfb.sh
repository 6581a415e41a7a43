#!/usr/bin/env bash
# Runs one command inside a private Xvfb server. -displayfd lets the server pick
# a free display itself, so parallel tests never race for a number.
set -u
fifo=$(mktemp -u)
mkfifo "$fifo"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset 3>"$fifo" >/dev/null 2>&1 &
xvfb_pid=$!
read -r display <"$fifo"
rm -f "$fifo"
trap 'kill $xvfb_pid 2>/dev/null; wait $xvfb_pid 2>/dev/null' EXIT
if [ -z "${display:-}" ]; then
  echo "with-xvfb: Xvfb did not start" >&2
  exit 1
fi
DISPLAY=":$display" QT_QPA_PLATFORM=xcb "$@"
