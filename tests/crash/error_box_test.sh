#!/usr/bin/env bash
# The error box of a pure virtual call, on a virtual X display of its own:
# CrashReportTest's ErrorBox test finds the box, checks it and presses OK.
# Usage: error_box_test.sh <wine-run.sh> <CrashReportTest.exe>
set -euo pipefail
wine_run="$1"
wineserver="$(dirname "$(command -v wine64 || echo /usr/lib/wine/wine64)")/wineserver"
[ -x "$wineserver" ] || wineserver=/usr/lib/wine/wineserver

display=90   # the first free display number
while [ -e "/tmp/.X${display}-lock" ] || [ -e "/tmp/.X11-unix/X${display}" ]; do display=$((display + 1)); done
Xvfb ":${display}" -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
# The wine session of the prefix runs with one display driver: finish the one
# without a display first, and leave none behind.
export WINEPREFIX="${WINEPREFIX:-$(cd "$(dirname "$wine_run")/.." && pwd)/build/x86_64/wineprefix}"
cleanup() {
  "$wineserver" -w 2>/dev/null || true
  kill "$xvfb" 2>/dev/null && wait "$xvfb" 2>/dev/null || true
}
trap cleanup EXIT
for _ in $(seq 100); do [ -e "/tmp/.X11-unix/X${display}" ] && break; sleep 0.1; done
[ -e "/tmp/.X11-unix/X${display}" ] || { echo "Xvfb :${display} did not start"; exit 1; }
"$wineserver" -w 2>/dev/null || true

# The test must run here, not skip for want of a display.
CRASH_ERROR_BOX_REQUIRED=1 DISPLAY=":${display}" "$wine_run" "$2" --gtest_filter='ErrorBox.*'
