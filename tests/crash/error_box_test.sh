#!/usr/bin/env bash
# The error box of a pure virtual call, on a virtual X display of its own:
# CrashReportTest's ErrorBox test finds the box, checks it and presses OK.
# Usage: error_box_test.sh <wine-run.sh> <CrashReportTest.exe>
set -euo pipefail
export wineserver="$(dirname "$(command -v wine64 || echo /usr/lib/wine/wine64)")/wineserver"
[ -x "$wineserver" ] || wineserver=/usr/lib/wine/wineserver
export WINEPREFIX="${WINEPREFIX:-$(cd "$(dirname "$1")/.." && pwd)/build/x86_64/wineprefix}"
# The wine session of the prefix runs with one display driver: the one without
# a display ends first, the one with it before its display. The test must run
# here, not skip for want of a display.
"$wineserver" -w 2>/dev/null || true
CRASH_ERROR_BOX_REQUIRED=1 xvfb-run -a \
  bash -c '"$0" "$@"; status=$?; "$wineserver" -w; exit $status' "$1" "$2" --gtest_filter='ErrorBox.*'
