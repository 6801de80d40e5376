#!/usr/bin/env bash
# The installer packages of both architectures, read with msitools: platform,
# version, the three files under Program Files, and the self-registration
# custom actions in the execute sequence.
#   check_packages.sh <build root>
set -euo pipefail
root="$(cd "$1" && pwd)"
version="$(sed -n 's/^FILEVERSION \([0-9]*\),\([0-9]*\),\([0-9]*\),\([0-9]*\).*/\1.\2.\3.\4/p' \
  "$(dirname "$0")/../../InstanceData/InstanceData.rc")"
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
expect() {    # expect <what> <text> <pattern>
  grep -qE -- "$3" <<<"$2" || fail "$1: no match for '$3'"
}

# arch  template (platform;language)  program files folder  64-bit component flag  system folder of regsvr32
while read -r arch template folder bits system; do
  msi="$root/$arch/InstanceData-$arch.msi"
  [ -f "$msi" ] || { fail "$msi missing"; continue; }
  expect "$arch summary" "$(msiinfo suminfo "$msi")" "^Template: $template\$"
  expect "$arch version" "$(msiinfo export "$msi" Property)" "^ProductVersion	$version"
  files="$(msiinfo export "$msi" File)"
  for file in InstanceData.dll Pivka.dll InstanceData.tlb; do
    expect "$arch files" "$files" "	$file	"
  done
  [ "$(grep -c '	' <<<"$(tail -n +4 <<<"$files")")" -eq 3 ] || fail "$arch: not exactly three files"
  expect "$arch folder" "$(msiinfo export "$msi" Directory)" "^INSTALLDIR	$folder	"
  components="$(msiinfo export "$msi" Component | tail -n +4)"
  while IFS=$'\t' read -r _ _ _ attributes _; do
    (( (attributes & 256) == bits )) || fail "$arch: component attributes $attributes"
  done <<<"$components"
  actions="$(msiinfo export "$msi" CustomAction)"
  expect "$arch regsvr32" "$actions" "^SetRegsvr32	51	REGSVR32	\[$system\]regsvr32.exe"
  expect "$arch register" "$actions" "^RegisterModule	[0-9]+	REGSVR32	/s \"\[#InstanceDataDll\]\""
  expect "$arch unregister" "$actions" "^UnregisterModule	[0-9]+	REGSVR32	/s /u \"\[#InstanceDataDll\]\""
  sequence="$(msiinfo export "$msi" InstallExecuteSequence)"
  expect "$arch sequence" "$sequence" "^UnregisterModule	REMOVE=\"ALL\"	"
  expect "$arch sequence" "$sequence" "^RegisterModule	NOT REMOVE	"
done <<'TABLE'
x86_64 x64;1033 ProgramFiles64Folder 256 System64Folder
i686 Intel;1033 ProgramFilesFolder 0 SystemFolder
TABLE

[ "$failures" -eq 0 ] && echo "installer packages: ok"
exit $((failures > 0))
