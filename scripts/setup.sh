#!/usr/bin/env bash
# Installs the Debian packages that the build and the tests need, when missing.
set -euo pipefail
packages=(g++-mingw-w64-x86-64 g++-mingw-w64-i686 mingw-w64-tools libwine-dev wine64 wine nlohmann-json3-dev
          googletest cmake ccache python3-olefile xvfb xauth wixl msitools)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
