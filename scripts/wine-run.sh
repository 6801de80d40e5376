#!/usr/bin/env bash
# Runs a Windows program of build/x86_64 under Wine, in the project's own prefix.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
export WINEPREFIX="${WINEPREFIX:-$root/build/x86_64/wineprefix}"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
loader=/usr/lib/wine/wine64
[ -x "$loader" ] || loader="$(command -v wine64 || command -v wine)"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  "$loader" wineboot -i >/dev/null 2>&1 || true
  "$(dirname "$loader")/wineserver" -w 2>/dev/null || true
fi
exec "$loader" "$@"
