#!/usr/bin/env bash
# What depends on the architecture in the installer packages of both (InstallerTest installs only the x86_64
# one), read with msitools: platform, version, Program Files folder, component bitness, regsvr32 of the package.
#   check_packages.sh <build root>
set -uo pipefail
version="$(sed -n 's/^FILEVERSION \([0-9]*\),\([0-9]*\),\([0-9]*\),\([0-9]*\).*/\1.\2.\3.\4/p' \
  "$(dirname "$0")/../../InstanceData/InstanceData.rc")"
failures=0
expect() {    # expect <what> <text> <pattern>
  grep -qE -- "$3" <<<"$2" || { echo "FAIL $1: no match for '$3'"; failures=$((failures + 1)); }
}

# arch  template (platform;language)  program files folder  64-bit component flag  system folder of regsvr32
while read -r arch template folder bits system; do
  msi="$1/$arch/InstanceData-$arch.msi"
  expect "$arch summary" "$(msiinfo suminfo "$msi")" "^Template: $template\$"
  expect "$arch version" "$(msiinfo export "$msi" Property)" "^ProductVersion	$version"
  expect "$arch folder" "$(msiinfo export "$msi" Directory)" "^INSTALLDIR	$folder	"
  components="$(msiinfo export "$msi" Component | tail -n +4 | cut -f4 |
    while read -r attributes; do echo -n "$((attributes & 256)):"; done)"
  expect "$arch component bitness" "$components" "^($bits:){3}\$"    # of the three components
  expect "$arch regsvr32" "$(msiinfo export "$msi" CustomAction)" "^SetRegsvr32	51	REGSVR32	\[$system\]regsvr32.exe"
done <<'TABLE'
x86_64 x64;1033 ProgramFiles64Folder 256 System64Folder
i686 Intel;1033 ProgramFilesFolder 0 SystemFolder
TABLE

[ "$failures" -eq 0 ] && echo "installer packages: ok"
exit $((failures > 0))
