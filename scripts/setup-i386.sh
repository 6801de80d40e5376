#!/usr/bin/env bash
# Sets up 32-bit Wine under user-mode emulation, when missing: qemu-user >= 8
# from backports, a binfmt_misc handler for i386 ELF, and a sysroot with the
# unpacked i386 Wine (never installed: that would replace the 64-bit wine).
# The sysroot is I386_SYSROOT (default build/i386-root). Idempotent.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
sysroot="${I386_SYSROOT:-$root/build/i386-root}"
SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
export DEBIAN_FRONTEND=noninteractive

qemu_major() { qemu-i386 --version 2>/dev/null | sed -n 's/.*version \([0-9]*\).*/\1/p'; }

# Debian 12's qemu 7.2 spends ~50 s starting each process; backports has a fast one.
# The backports source copies URIs and key of the system's own Debian source.
if [ "$(qemu_major || true)" -lt 8 ] 2>/dev/null || [ -z "$(qemu_major || true)" ]; then
  codename="$(. /etc/os-release && echo "$VERSION_CODENAME")"
  list=/etc/apt/sources.list.d/$codename-backports.sources
  if [ ! -f "$list" ]; then
    src=/etc/apt/sources.list.d/debian.sources
    awk -v c="$codename" '
      BEGIN { RS = ""; FS = "\n" }
      {
        main = 0
        for (i = 1; i <= NF; i++)
          if ($i ~ /^Suites:/ && (" " $i " ") ~ (" " c " ")) main = 1
        if (!main) next
        for (i = 1; i <= NF; i++) {
          if ($i ~ /^#/) continue
          if ($i ~ /^Suites:/) $i = "Suites: " c "-backports"
          print $i
        }
        exit
      }' "$src" | $SUDO tee "$list" >/dev/null
    [ -s "$list" ] || { echo "no $codename entry in $src" >&2; $SUDO rm -f "$list"; exit 1; }
  fi
  $SUDO apt-get -o DPkg::Lock::Timeout=900 update -qq || true
  $SUDO apt-get -o DPkg::Lock::Timeout=900 install -y -qq -t "$codename-backports" qemu-user >/dev/null
fi

# Wine re-executes itself and starts child processes: the kernel must hand
# i386 ELF files to qemu. F opens the interpreter now, so it works in any root.
binfmt=/proc/sys/fs/binfmt_misc
[ -f "$binfmt/register" ] || $SUDO mount -t binfmt_misc binfmt_misc "$binfmt"
if [ ! -f "$binfmt/qemu-i386" ]; then
  magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00'
  mask='\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
  echo ":qemu-i386:M::$magic:$mask:/usr/bin/qemu-i386:F" | $SUDO tee "$binfmt/register" >/dev/null
fi

# The sysroot: unpacked, never installed (apt's resolver fails on wine32:i386
# and it would change /usr/bin/wine). Never FreeType: Wine then crashes
# loading fonts and respawns explorer.exe without end.
if [ ! -x "$sysroot/usr/lib/wine/wine" ] || [ ! -f "$sysroot/.complete" ]; then
  dpkg --print-foreign-architectures | grep -qx i386 || $SUDO dpkg --add-architecture i386
  # One i386 index can fail while mirrors sync; the downloads still work.
  $SUDO apt-get -o DPkg::Lock::Timeout=900 update -qq || true
  debs="$(mktemp -d)"; chmod 755 "$debs"   # apt downloads as _apt
  trap 'rm -rf "$debs"' EXIT
  (cd "$debs" && apt-get download -qq libc6:i386 libgcc-s1:i386 libwine:i386 wine32:i386)
  rm -rf "$sysroot"
  mkdir -p "$sysroot/etc"
  for deb in "$debs"/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
  printf '%s\n' /lib/i386-linux-gnu /usr/lib/i386-linux-gnu > "$sysroot/etc/ld.so.conf"
  ldconfig -r "$sysroot"
  # As libwine's install script does: mingw's zlib1.dll marked as a Wine
  # builtin, without which user32.dll fails to load.
  zlib=/usr/i686-w64-mingw32/lib/zlib1.dll
  out="$sysroot/usr/lib/i386-linux-gnu/wine/i386-windows/zlib1.dll"
  { head -c 64 "$zlib"; printf 'Wine builtin DLL'; head -c 16 /dev/zero; tail -c +97 "$zlib"; } > "$out"
  touch "$sysroot/.complete"
fi
