#!/usr/bin/env bash
# Builds both architectures and runs the whole test suite under Wine.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/build.sh"
cd "$root/build/x86_64"
ctest --output-on-failure -j2 "$@"
