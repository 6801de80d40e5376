#!/usr/bin/env bash
# Builds and runs the store benchmark: StoreBench [parameters per instance...] (default 10 100 1000).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/build.sh"
cd "$root/build/x86_64"
"$root/scripts/wine-run.sh" StoreBench.exe "$@"
