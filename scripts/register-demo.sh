#!/usr/bin/env bash
# Builds, registers the FDT registration stand-in and the server with
# regsvr32 in the project's Wine prefix, then runs a client that creates the
# class by its programmatic identifier. "unregister" as argument undoes it.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/build.sh"
cd "$root/build/x86_64"
run="$root/scripts/wine-run.sh"
if [ "${1:-}" = unregister ]; then
  "$run" regsvr32 /s /u InstanceData.dll && echo "InstanceData.dll unregistered"
  "$run" regsvr32 /s /u FdtRegisterComp.dll && echo "FdtRegisterComp.dll unregistered"
  exit 0
fi
# FdtEnlist.exe is found in the current directory by the server's self-registration.
"$run" regsvr32 /s FdtRegisterComp.dll && echo "FdtRegisterComp.dll registered"
"$run" regsvr32 /s InstanceData.dll && echo "InstanceData.dll registered"
"$run" RegisteredClient.exe "${1:-demo.stg}"
