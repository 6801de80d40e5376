#!/usr/bin/env bash
# Runs a Windows program of build/i686 under the 32-bit Wine of the emulation
# (scripts/setup-i386.sh), in a 32-bit prefix of the project's own.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
sysroot="${I386_SYSROOT:-$root/build/i386-root}"
export WINEPREFIX="${WINEPREFIX:-$root/build/i686/wineprefix}"
export WINEARCH=win32
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
export QEMU_LD_PREFIX="$sysroot"
loader="$sysroot/usr/lib/wine/wine"
# The host's native server (the same Wine version) serves 32-bit clients too,
# at full speed.
export WINESERVER=/usr/lib/wine/wineserver64
server="$WINESERVER"
[ -x "$loader" ] || { echo "no 32-bit Wine in $sysroot: run scripts/setup-i386.sh" >&2; exit 1; }

# There is no FreeType in the sysroot, on purpose (with it Wine crashes
# loading fonts); its four-line complaint is dropped.
filter() { sed -u '/cannot find the FreeType font library/,/www\.freetype\.org/d' >&2; }

if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  "$loader" wineboot -i >/dev/null 2>&1 || true
fi
# One server per prefix stays up between programs: a cold start costs
# seconds under emulation.
"$server" -p30 >/dev/null 2>&1 || true
exec "$loader" "$@" 2> >(filter)
