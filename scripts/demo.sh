#!/usr/bin/env bash
# Builds everything and runs the demo frame session on a store file
# (default demo.stg in build/x86_64); extra arguments go to the demo.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/build.sh"
cd "$root/build/x86_64"
"$root/scripts/wine-run.sh" DemoFrame.exe "$@"
