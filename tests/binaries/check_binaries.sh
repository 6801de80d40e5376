#!/usr/bin/env bash
# Checks the shipped DLLs of build/x86_64 and build/i686: InstanceData.dll
# exports exactly its four functions; it imports Pivka.dll and system DLLs
# only, Pivka.dll system DLLs only; no compiler runtime DLL is needed.
set -u
builds="$1"
objdump=x86_64-w64-mingw32-objdump
system='^(kernel32|advapi32|user32|gdi32|ole32|oleaut32|msvcrt|version|dbghelp|shell32|shlwapi|psapi|ntdll)\.dll$'
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

for arch in x86_64 i686; do
  dir="$builds/$arch"
  for dll in InstanceData.dll Pivka.dll; do
    [ -f "$dir/$dll" ] || { fail "$arch/$dll missing"; continue; }
    imports=$($objdump -p "$dir/$dll" | sed -n 's/^\s*DLL Name: //p' | tr 'A-Z' 'a-z')
    for import in $imports; do
      if [ "$dll" = InstanceData.dll ] && [ "$import" = pivka.dll ]; then continue; fi
      echo "$import" | grep -Eq "$system" || fail "$arch/$dll imports $import"
    done
  done
  exports=$($objdump -p "$dir/InstanceData.dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
            sed -n 's/^\s*\[ *[0-9]*\] //p' | sort | tr '\n' ' ')
  [ "$exports" = "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer " ] ||
    fail "$arch/InstanceData.dll exports: $exports"
  machine=$($objdump -f "$dir/InstanceData.dll" | sed -n 's/.*file format //p')
  case "$arch" in
    x86_64) [ "$machine" = pei-x86-64 ] || fail "$arch machine $machine" ;;
    i686) [ "$machine" = pei-i386 ] || fail "$arch machine $machine" ;;
  esac
  [ -f "$dir/FdtInterfaces.tlb" ] || fail "$arch/FdtInterfaces.tlb missing"
done
[ "$failures" -eq 0 ] && echo "binary check: all DLLs as shipped" || echo "binary check: $failures problem(s)"
exit $((failures != 0))
