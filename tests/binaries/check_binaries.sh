#!/usr/bin/env bash
# Checks the shipped DLLs of build/x86_64 and build/i686: their machine type;
# InstanceData.dll exports exactly its four functions; it imports Pivka.dll and
# system DLLs only, Pivka.dll system DLLs only; no compiler runtime DLL is needed.
#   check_binaries.sh <build root>
set -u
objdump=x86_64-w64-mingw32-objdump
system='kernel32|advapi32|user32|gdi32|ole32|oleaut32|msvcrt|version|dbghelp|shell32|shlwapi|psapi|ntdll'
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

for build in "x86_64 pei-x86-64" "i686 pei-i386"; do
  read -r arch machine <<<"$build"
  for dll in InstanceData.dll Pivka.dll; do
    file="$1/$arch/$dll"
    format=$($objdump -f "$file" | sed -n 's/.*file format //p')
    [ "$format" = "$machine" ] || fail "$arch/$dll: machine '$format'"
    for import in $($objdump -p "$file" | sed -n 's/^\s*DLL Name: //p' | tr 'A-Z' 'a-z'); do
      [ "$dll/$import" = InstanceData.dll/pivka.dll ] || grep -Eqx "($system)\.dll" <<<"$import" ||
        fail "$arch/$dll imports $import"
    done
  done
  exports=$($objdump -p "$1/$arch/InstanceData.dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
            sed -n 's/^\s*\[ *[0-9]*\] //p' | sort | tr '\n' ' ')
  [ "$exports" = "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer " ] ||
    fail "$arch/InstanceData.dll exports: $exports"
done
[ "$failures" -eq 0 ] && echo "binary check: all DLLs as shipped" || echo "binary check: $failures problem(s)"
exit $((failures != 0))
